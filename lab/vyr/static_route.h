/*
 * One static route: from the daemon's form to stock BIRD's.
 */
#pragma once

#include "lab/vyr/config_text.h"
#include "lab/vyr/translate.h"

namespace vyr {

/** Whether the kernel could have an interface of that name. */
bool is_interface_name(std::string_view name);

/** Appends the route as a piece of its own, or notes why it was left out. */
void translate_route(const Statement &statement, Translation &translation);

}  // namespace vyr
