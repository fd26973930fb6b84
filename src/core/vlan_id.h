/*
 * The ids that VLANs may have here.
 */
#pragma once

inline constexpr bool is_valid_vlan_id(int id) {
    return id >= 1 && id <= 4095;
}
