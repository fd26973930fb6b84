/*
 * The two that are measured side by side: the daemon, and the floor program that does the least that the same result
 * can be had for. Each has a Redis of its own and names of its own, so that neither hears what is meant for the other
 * and both can stand ready at the same time.
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
};

/** Names of one kind are equally long: what a path costs is the same on both sides. */
inline constexpr std::array<SubjectNames, 2> kSubjects = {{
    {"daemon", "/run/daemon.sock", "vyr_static.conf", "/tmp/.sock/RoutingProtocols_VYRWRAP.sock", ".vyrwrap_mrt"},
    {"floor", "/run/floors.sock", "flr_static.conf", "/tmp/.sock/RoutingProtocols_FLOORPR.sock", ".floorpr_mrt"},
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
