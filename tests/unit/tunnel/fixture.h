/* Tunnels in the DAL, the table, and what the routing application receives of them. */
#pragma once

#include <stdint.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "fakes/fakes.h"
#include "fakes/routing_app.h"
#include "tunnel/tunnel_record.h"

using Fields = std::map<std::string, std::string>;
using Texts = std::vector<std::string>;

/** A complete hash. */
Fields tunnel_fields(const std::string &name, uint32_t mapid, int status);

/** "1 NAME": opcode and name of one record. */
std::string summary_of(const std::string &record);

/** The link open, the application there, an empty table. */
class TunnelTest : public fake::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /** Takes the table away, as before it has been made. */
    static void leave_table();

    /** Puts a tunnel into the DAL, notifying nobody. */
    static void put(const std::string &name, uint32_t mapid, int status = 0) {
        fake::hashes["/op/tunnel/" + name] = tunnel_fields(name, mapid, status);
    }

    /** Puts a tunnel into the DAL and handles its notification. */
    static void hset(const std::string &name, uint32_t mapid, int status = 0);

    /** Handles one notification on a tunnel's key. */
    static void notify(const std::string &name, const std::string &event);

    /** What the application received since the last call: one string a record, as summary_of gives it. */
    Texts received();

    static Texts errors() { return fake::log_texts(3); }
    static Texts infos() { return fake::log_texts(6); }

    /** A text with a pointer in it. */
    static std::string pointer_text(const void *pointer);

    fake::RoutingApp app_;
};
