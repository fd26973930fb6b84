/*
 * What is measured side by side: the daemon, the floor program that does the least that the same result can be had for,
 * and what a user would otherwise write, in Python and as a shell loop. Each has a Redis of its own and names of its
 * own, so that none hears what is meant for another and all can stand ready at the same time. The scripts repeat
 * theirs.
 */
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

struct SubjectNames {
    const char *name;
    const char *dal;         /**< socket of its Redis */
    const char *static_file; /**< in kWatchedFolder */
    const char *own_socket;  /**< where it takes replay requests */
    const char *export_file; /**< in kWatchedFolder */
    int turns;               /**< sampled in every so many turns of the others; what is slow takes fewer samples */
};

/** Names of one kind are equally long: what a path costs is the same on both sides. */
inline constexpr std::array<SubjectNames, 4> kSubjects = {{
    {"daemon", "/run/daemon.sock", "vyr_static.conf", "/tmp/.sock/RoutingProtocols_VYRWRAP.sock", ".vyrwrap_mrt", 1},
    {"floor", "/run/floors.sock", "flr_static.conf", "/tmp/.sock/RoutingProtocols_FLOORPR.sock", ".floorpr_mrt", 1},
    {"python", "/run/python.sock", "pyt_static.conf", "/tmp/.sock/RoutingProtocols_PYTHONP.sock", ".pythonp_mrt", 1},
    {"shell", "/run/shells.sock", "shl_static.conf", nullptr, nullptr, 5},
}};
inline constexpr const SubjectNames &kFloor = kSubjects[1];

inline constexpr char kWatchedFolder[] = "/tmp";
inline constexpr char kApplicationSocket[] = "/tmp/.sock/RoutingProtocols_APP_CMN.sock";
inline constexpr char kExportSocket[] = "/tmp/bird_data_exp.ctl";

inline constexpr char kRoutePattern[] = "/op/staticroute/*";
inline constexpr char kTunnelPattern[] = "/op/tunnel/*";
inline constexpr char kKeyspacePrefix[] = "__keyspace@0__:";
inline constexpr char kExportChannel[] = "/ipc/event/vyrwrap/mrt";

/** One tunnel's message to the routing application, and the most that one replay carries. */
inline constexpr size_t kTunnelMessageSize = 348;
inline constexpr size_t kMaxTunnels = 200;

/** What the stand-in for the routing daemon answers: the body's size hangs on the export type that was asked for. */
struct ExportAnswer {
    uint8_t request_code; /**< of the export type that is the index in kExportAnswers */
    uint32_t body_size;
};
inline constexpr uint32_t kMaxFrame = 1048575; /**< length word included */
inline constexpr std::array<ExportAnswer, 3> kExportAnswers = {{
    {3, 1024},
    {23, 65536},
    {27, kMaxFrame - sizeof(uint32_t)},
}};
