/* What the files of the fakes need of each other. */
#pragma once

namespace fake {

void reset_calls();
void reset_dal();

}  // namespace fake
