#include "core/global.h"

#include "core/log.h"

VyrwrapGlobal vyrwrap_global;

void vyrwrap_mark_config_dirty(const char *function) {
    vyrwrap_global.config_dirty = 1;
    vyrwrap_global.dirty_wait_ticks = 0;
    log_debug("<VYRWRAP>: Dirty flag set at %s", function);
}

void vyrwrap_note_file_written(uint32_t file, bool written) {
    if (written)
        vyrwrap_global.unwritten_files &= ~file;
    else
        vyrwrap_global.unwritten_files |= file;
}
