#include "mroute/runtime/cell.h"

namespace Cell {

std::string path(std::string_view path, uint32_t cellId) {
  std::string p = "cell/" + std::to_string(cellId) + "/";
  p += path;
  return p;
}

}  // namespace Cell
