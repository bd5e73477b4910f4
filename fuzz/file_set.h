// One fuzz input as the files of a table directory, so that the fuzzer
// mutates all of them together. Every file but the last is a little-endian
// u32 length and that many bytes; the last takes the rest. A length beyond
// the input ends the set: that file and the ones after it are missing,
// which the readers must survive too. The seed generator packs real files
// the same way.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Fuzz {

inline std::vector<std::optional<std::string_view>> splitFiles(std::string_view in, size_t count) {
  std::vector<std::optional<std::string_view>> files(count);
  for (size_t i = 0; i < count; ++i) {
    if (i + 1 == count) {
      files[i] = in;
      break;
    }
    uint32_t len;
    if (in.size() < sizeof len) break;
    std::memcpy(&len, in.data(), sizeof len);
    in.remove_prefix(sizeof len);
    if (len > in.size()) break;
    files[i] = in.substr(0, len);
    in.remove_prefix(len);
  }
  return files;
}

inline std::string joinFiles(const std::vector<std::string>& files) {
  std::string out;
  for (size_t i = 0; i < files.size(); ++i) {
    if (i + 1 < files.size()) {
      const uint32_t len = static_cast<uint32_t>(files[i].size());
      out.append(reinterpret_cast<const char*>(&len), sizeof len);
    }
    out += files[i];
  }
  return out;
}

}  // namespace Fuzz
