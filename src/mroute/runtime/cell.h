// Cell::path: the per-cell form of a state path. A device may run several
// cells (supervisors), each with its own copy of per-cell state; state that
// exists once per cell is mounted under "cell/<cell id>/". Cell 0 is the
// default cell, the one of a device without cells.
//
// Thread-safety: pure function.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Cell {

// "cell/<cellId>/<path>", e.g. path("routing/multicast/fibready/status", 0)
// is "cell/0/routing/multicast/fibready/status".
std::string path(std::string_view path, uint32_t cellId);

}  // namespace Cell
