// The exceptions of the library.
//
// Recoverable faults are exceptions; invariant violations are assertions
// (assert.h). Every exception here carries a human-readable what().
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Kiv {

// A value outside its type's range, e.g. "VlanId::value < 1 or > 4094 not
// allowed", or a required pointer that is null ("null ValidPtr").
class RangeException : public std::out_of_range {
 public:
  explicit RangeException(const std::string& text) : std::out_of_range(text) {}
};

// A text form that could not be read back. attribute() names the field that
// failed; what() is "<attribute>: <cause>".
class DeserializationException : public std::runtime_error {
 public:
  DeserializationException(std::string attribute, const std::string& cause);
  const std::string& attribute() const { return attribute_; }
  const std::string& cause() const { return cause_; }

 private:
  std::string attribute_;
  std::string cause_;
};

}  // namespace Kiv

namespace Pavo {

class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& text) : std::runtime_error(text) {}
};

// Table files are corrupt; the reader stops and reports.
class CorruptionDetectedException : public Exception {
 public:
  using Exception::Exception;
};
class MemoryResourceException : public Exception {
 public:
  using Exception::Exception;
};
class InvalidInitializeException : public Exception {
 public:
  using Exception::Exception;
};
class NoPermissionException : public Exception {
 public:
  using Exception::Exception;
};
class UnimplementedException : public Exception {
 public:
  using Exception::Exception;
};

}  // namespace Pavo

namespace Brume {

// No slot can be had: the table is at its fixed capacity.
class TableFullException : public Pavo::Exception {
 public:
  using Pavo::Exception::Exception;
};

}  // namespace Brume

namespace Mroute {

// A failed system call: what() is "<context>: <strerror(errno)>", e.g.
// "setsockopt(IGMP_NOCACHE): Protocol not available".
class ErrnoException : public std::runtime_error {
 public:
  ErrnoException(std::string_view context, int errnum);
  int errnum() const { return errnum_; }
  const std::string& context() const { return context_; }

 private:
  std::string context_;
  int errnum_;
};

// Throws ErrnoException with the current errno.
[[noreturn]] void throwErrno(std::string_view context);

}  // namespace Mroute
