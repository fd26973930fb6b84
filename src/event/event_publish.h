/*
 * Publication of platform events on the DAL.
 *
 * An event travels as an envelope: its identifier (16 bits, host byte order), a flag byte that is 1, the encoded
 * PlatformEvent, and one last byte that carries nothing.
 */
#pragma once

#include <stdint.h>

#include <platform_event.pb.h>

#include "core/owned.h"
#include "platform/dal.h"

inline constexpr int kEventPayloadMax = 8188; /**< bytes of an encoded event that fit an envelope */

/** Encodes a record into `payload`. Returns the bytes of it, or -1 with nothing in `payload`; that has been logged. */
int dal_package_event(uint16_t eid, const PlatformEvent *event, Owned<uint8_t> &payload);

/** Publishes a record on the channel of its identifier. A failure is logged and the event lost. */
void dal_pub_event(dal_ctx *ctx, uint16_t eid, const PlatformEvent *event);
