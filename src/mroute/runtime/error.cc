#include "mroute/runtime/error.h"

#include <cerrno>
#include <cstring>

namespace Kiv {

DeserializationException::DeserializationException(std::string attribute, const std::string& cause)
    : std::runtime_error(attribute + ": " + cause), attribute_(std::move(attribute)), cause_(cause) {}

}  // namespace Kiv

namespace Mroute {
namespace {

std::string systemMessage(int errnum) {
  char buf[256];
  // GNU strerror_r may return a static string instead of filling buf.
  const char* msg = strerror_r(errnum, buf, sizeof buf);
  return msg;
}

}  // namespace

ErrnoException::ErrnoException(std::string_view context, int errnum)
    : std::runtime_error(std::string(context) + ": " + systemMessage(errnum)),
      context_(context),
      errnum_(errnum) {}

void throwErrno(std::string_view context) { throw ErrnoException(context, errno); }

}  // namespace Mroute
