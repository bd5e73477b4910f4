// Test helpers: check the exact text of a fatal assertion or an exception.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "mroute/runtime/assert.h"

// EXPECT_ASSERTION(statement, "violated expression"): the statement must fail
// an MROUTE_ASSERT whose text is exactly the given one.
#define EXPECT_ASSERTION(statement, text)                                   \
  do {                                                                      \
    ::Mroute::ThrowingAssertHandler mrouteThrowing_;                        \
    try {                                                                   \
      statement;                                                            \
      ADD_FAILURE() << "expected assertion \"" << (text) << "\"";           \
    } catch (const ::Mroute::AssertionFailure& e) {                         \
      EXPECT_EQ(std::string(e.what()), std::string(text));                  \
    }                                                                       \
  } while (0)

// EXPECT_THROW_TEXT(statement, ExceptionType, "what"): the statement must
// throw that type with exactly that what().
#define EXPECT_THROW_TEXT(statement, type, text)                            \
  do {                                                                      \
    try {                                                                   \
      statement;                                                            \
      ADD_FAILURE() << "expected " #type " \"" << (text) << "\"";           \
    } catch (const type& e) {                                               \
      EXPECT_EQ(std::string(e.what()), std::string(text));                  \
    }                                                                       \
  } while (0)
