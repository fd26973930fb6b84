#include "lab/vyr/prepare.h"

#include <fcntl.h>
#include <glob.h>
#include <ifaddrs.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "lab/vyr/bird.h"

namespace vyr {

namespace {

std::optional<std::string> read_file(const std::string &path) {
    const std::ifstream file(path);
    std::ostringstream text;
    if (!file || std::filesystem::is_directory(path))
        return std::nullopt;
    text << file.rdbuf();
    return file.bad() ? std::nullopt : std::optional<std::string>(text.str());
}

std::vector<std::string> match_files(const std::string &pattern) {
    glob_t found{};
    std::vector<std::string> paths;
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0)
        paths.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    return paths;
}

bool write_new_file(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && written;
}

/** Puts the text in the file's place; the old file stands until the new one is whole. */
bool replace_file(const std::string &path, const std::string &text) {
    const std::string new_path = path + ".new";
    unlink(new_path.c_str());
    if (write_new_file(new_path, text) && rename(new_path.c_str(), path.c_str()) == 0)
        return true;
    fprintf(stderr, "vyr: cannot write %s: %s\n", path.c_str(), strerror(errno));
    unlink(new_path.c_str());
    return false;
}

/** BIRD refuses a whole configuration for one log file that it cannot open. */
void leave_out_closed_logs(Translation &translation) {
    for (size_t i = translation.pieces.size(); i-- > 0;) {
        const Piece &piece = translation.pieces[i];
        if (piece.kind != PieceKind::kLog)
            continue;
        std::error_code ignored;
        std::filesystem::create_directories(std::filesystem::path(piece.name).parent_path(), ignored);
        const int fd = open(piece.name.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0644);
        if (fd < 0)
            leave_out(translation, i, strerror(errno));
        else
            close(fd);
    }
}

/** Asks BIRD until it has nothing to say against a single route any more. What is left to say it says when it starts.
 */
bool leave_out_refused(Translation &translation, const std::string &stock) {
    for (;;) {
        if (!replace_file(stock, render(translation)))
            return false;
        const auto complaint = check_config(stock);
        if (!complaint || !leave_out_line(translation, complaint->line, complaint->text))
            return true;
    }
}

void report(const Translation &translation) {
    for (const std::string &text : translation.left_out)
        fprintf(stderr, "vyr: left out %s\n", text.c_str());
    const auto routes = std::count_if(translation.pieces.begin(), translation.pieces.end(),
                                      [](const Piece &piece) { return piece.kind == PieceKind::kRoute; });
    fprintf(stderr, "vyr: %td static routes taken, %zu left out\n", routes, translation.left_out.size());
}

}  // namespace

std::optional<Translation> prepare_config(const std::string &config, const std::string &stock) {
    auto translation = translate(config, {read_file, match_files});
    if (!translation) {
        fprintf(stderr, "vyr: Unable to open configuration file %s: %s\n", config.c_str(), strerror(errno));
        return std::nullopt;
    }
    leave_out_closed_logs(*translation);
    if (!leave_out_refused(*translation, stock))
        return std::nullopt;
    report(*translation);
    return translation;
}

bool has_address(const std::string &prefix) {
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) < 0)
        return false;
    bool found = false;
    for (const ifaddrs *one = all; one; one = one->ifa_next)
        found = found || (one->ifa_addr && one->ifa_addr->sa_family == AF_INET &&
                          std::string_view(one->ifa_name).starts_with(prefix));
    freeifaddrs(all);
    return found;
}

}  // namespace vyr
