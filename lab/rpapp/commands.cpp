#include "lab/rpapp/commands.h"

#include <stdint.h>

#include <algorithm>

#include "rpapp/message.h"

const char kCommandHelp[] =
    "  replay tunnels|vlans|clusters   ask the daemon for all of them\n"
    "  send HEX                        send these bytes; none: an empty datagram\n"
    "  stop                            read no more, so that the queue fills\n"
    "  go                              read again\n"
    "  quit                            end\n"
    "  help                            this list\n";

namespace {

Command invalid(const std::string &problem) {
    return {Command::INVALID, "", problem};
}

std::string bytes_of(const RoutingAppMsg &message) {
    return std::string(reinterpret_cast<const char *>(&message), sizeof message);
}

Command parse_replay(const std::string &what) {
    RoutingAppMsg request{};
    if (what == "tunnels") {
        request.msgType = MSG_FAMILY_TUNNEL;
        request.msg.ike_Msg.msgType = kIpsecIfaceMsg;
        request.msg.ike_Msg.ipsec_Iface.opCode = TUNNEL_REPLAY_ALL;
    } else if (what == "vlans") {
        request.msgType = MSG_FAMILY_VLAN;
        request.msg.im_Msg.msgType = IM_MSG_REPLAY_ALL;
    } else if (what == "clusters") {
        request.msgType = MSG_FAMILY_CLUSTER;
        request.msg.cluster_Msg.opCode = CLUSTER_REPLAY_ALL;
    } else {
        return invalid("replay what? tunnels, vlans or clusters");
    }
    return {Command::SEND, bytes_of(request), ""};
}

int hex_digit(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

Command parse_send(std::string hex) {
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    if (hex.size() % 2 != 0)
        return invalid("an odd number of hexadecimal digits");
    std::string datagram;
    for (size_t i = 0; i < hex.size(); i += 2) {
        const int high = hex_digit(hex[i]);
        const int low = hex_digit(hex[i + 1]);
        if (high < 0 || low < 0)
            return invalid("not a hexadecimal number");
        datagram += static_cast<char>(high * 16 + low);
    }
    return {Command::SEND, datagram, ""};
}

}  // namespace

Command parse_command(const std::string &line) {
    const size_t blank = line.find(' ');
    const std::string word = line.substr(0, blank);
    const std::string rest = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (word == "replay")
        return parse_replay(rest);
    if (word == "send")
        return parse_send(rest);
    if (!rest.empty())
        return invalid("unknown command; try help");
    if (word.empty())
        return {};
    if (word == "stop")
        return {Command::STOP, "", ""};
    if (word == "go")
        return {Command::GO, "", ""};
    if (word == "quit")
        return {Command::QUIT, "", ""};
    if (word == "help")
        return {Command::HELP, "", ""};
    return invalid("unknown command; try help");
}
