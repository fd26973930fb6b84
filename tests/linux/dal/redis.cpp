#include "redis.h"

#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <thread>

std::string reply_text(const void *opaque) {
    const auto *reply = static_cast<const redisReply *>(opaque);
    if (!reply)
        return "(no reply)";
    switch (reply->type) {
        case REDIS_REPLY_INTEGER:
            return std::to_string(reply->integer);
        case REDIS_REPLY_NIL:
            return "(nil)";
        case REDIS_REPLY_ERROR:
            return "(error) " + std::string(reply->str, reply->len);
        case REDIS_REPLY_ARRAY:
            break;
        default:
            return {reply->str, reply->len};
    }
    std::string text = "[";
    for (size_t i = 0; i < reply->elements; i++)
        text += (i ? ", " : "") + reply_text(reply->element[i]);
    return text + "]";
}

Redis::Redis(const std::string &path) : path_(path) {}

Redis::~Redis() {
    kill();
}

void Redis::start(const std::vector<std::string> &options) {
    std::vector<std::string> words = {
        "redis-server", "--port", "0",     "--unixsocket", path_,       "--save",        "",
        "--appendonly", "no",     "--dir", "/tmp",         "--logfile", "/tmp/redis.log"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char *> pointers;
    for (std::string &word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execvp(pointers[0], pointers.data());
        _exit(127);
    }
    for (int tries = 0; !answers(); tries++) {
        ASSERT_LT(tries, 2000) << "redis-server does not answer";
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Redis::kill() {
    disconnect();
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
}

void Redis::freeze() {
    ::kill(pid_, SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
}

void Redis::thaw() {
    ::kill(pid_, SIGCONT);
}

void Redis::disconnect() {
    if (context_)
        redisFree(context_);
    context_ = nullptr;
}

bool Redis::answers() {
    const std::string answer = run({"PING"});
    return answer == "PONG" || answer.find("LOADING") != std::string::npos ||
           answer.find("NOAUTH") != std::string::npos;
}

std::string Redis::run(const std::vector<std::string> &arguments) {
    if (context_ && context_->err)
        disconnect();
    if (!context_)
        context_ = redisConnectUnix(path_.c_str());
    if (!context_ || context_->err)
        return "(no connection)";
    std::vector<const char *> bytes;
    std::vector<size_t> lengths;
    for (const std::string &each : arguments) {
        bytes.push_back(each.data());
        lengths.push_back(each.size());
    }
    void *reply = redisCommandArgv(context_, static_cast<int>(arguments.size()), bytes.data(), lengths.data());
    std::string text = reply_text(reply);
    freeReplyObject(reply);
    return text;
}

std::string Redis::operator()(const std::string &command) {
    std::istringstream words(command);
    std::vector<std::string> arguments;
    for (std::string word; words >> word;)
        arguments.push_back(word);
    return run(arguments);
}
