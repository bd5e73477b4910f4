// Runs mroutectl (its path is the MROUTECTL definition) with the tests'
// environment and collects its output, stdout and stderr together.
#pragma once

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace ToolTest {

struct ToolRun {
  int code = -1;  // the exit code; -1 when it did not exit
  std::string out;
};

// Starts a run whose output is read by finish().
inline FILE* start(const std::string& args) { return ::popen((MROUTECTL " " + args + " 2>&1").c_str(), "r"); }

inline ToolRun finish(FILE* p) {
  ToolRun r;
  if (p == nullptr) return r;
  char buf[4096];
  for (size_t n; (n = ::fread(buf, 1, sizeof buf, p)) > 0;) r.out.append(buf, n);
  const int status = ::pclose(p);
  r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

inline ToolRun mroutectl(const std::string& args) { return finish(start(args)); }

}  // namespace ToolTest
