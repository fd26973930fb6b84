/*
 * A server that answers as it is told, well or badly.
 */
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/** What a connection gets after the last text. */
enum class Then { the_same, its_end };

/**
 * Answers the n-th chunk that a connection sends with the n-th text; "" closes. With several lists of texts the n-th
 * connection gets the n-th one, and every further one the last, to which alone `then` applies.
 */
class Script {
public:
    using Answers = std::vector<std::string>;

    explicit Script(const Answers &answers, Then then = Then::the_same);
    struct Connections {
        std::vector<Answers> each;
    };
    explicit Script(const Connections &connections, Then then = Then::the_same);
    Script(const Script &) = delete;
    Script &operator=(const Script &) = delete;
    ~Script();

    /** In place of an answer: closes while what was sent to it has not been read. */
    static constexpr char kReset[] = "(reset)";
    /** In place of an answer: a bulk string of 16 MB, byte after byte without a pause. */
    static constexpr char kTrickle[] = "(trickle)";

    /** In place of an answer: reads everything and says nothing. */
    static constexpr char kSink[] = "(sink)";

    static constexpr char kPath[] = "/tmp/script.sock";

private:
    [[noreturn]] void serve(const std::vector<Answers> &connections, Then then) const;
    int listener_;
    pid_t pid_;
};

const char kPong[] = "+PONG\r\n";
const char kNoClient[] = "-ERR unknown subcommand\r\n"; /**< asked for its number together with the flags */
const char kFlags[] = "*2\r\n$1\r\nx\r\n$2\r\nKA\r\n";
const char kPongToSubscriber[] = "*2\r\n$4\r\npong\r\n$0\r\n\r\n";
