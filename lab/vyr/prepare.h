/*
 * From the daemon's files to a file that BIRD takes.
 */
#pragma once

#include <optional>
#include <string>

#include "lab/vyr/translate.h"

namespace vyr {

/**
 * Translates `config` into the file `stock`, without what BIRD refuses route by route, and says on stderr what was left
 * out. Nothing, with the reason on stderr, when the configuration cannot be read or the new file not be written.
 */
std::optional<Translation> prepare_config(const std::string &config, const std::string &stock);

/** Whether an interface whose name begins with `prefix` has an IPv4 address. */
bool has_address(const std::string &prefix);

}  // namespace vyr
