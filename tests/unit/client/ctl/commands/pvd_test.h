// Documents of proxy information for tests.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "client/ctl/commands/pvd_document.h"
#include "client/ctl/commands/pvd_script.h"

namespace pvd_test {

inline constexpr std::int64_t kNow = 1'790'000'000;  // September 2026
inline const std::string kHost = "proxy.example.org";

/// The text of a document with these additional members.
inline std::string with(const std::string& members) {
  return R"({"identifier": "proxy.example.org.", "expires": "2027-01-01T00:00:00Z", "prefixes": [])" +
         (members.empty() ? "" : ", " + members) + "}";
}

inline client::pvd::Reading read(const std::string& text) {
  return client::pvd::read(text, kHost, kNow);
}

/// The document with these additional members. If it is refused, the test fails and the result is
/// an empty document.
inline client::pvd::Document documentOf(const std::string& members) {
  const auto reading = read(with(members));
  EXPECT_TRUE(reading.document.has_value()) << reading.error;
  return reading.document.value_or(client::pvd::Document{});
}

inline std::string errorOf(const std::string& text) {
  const auto reading = read(text);
  EXPECT_FALSE(reading.document.has_value());
  return reading.error;
}

inline client::pvd::Script scriptOf(const std::string& members) {
  return client::pvd::scriptOf(documentOf(members), "DIRECT");
}

/// A list that has `value` `count` times.
inline std::string times(std::size_t count, const std::string& value) {
  std::string list = "[";
  for (std::size_t i = 0; i < count; ++i) list += (i == 0 ? "" : ", ") + value;
  return list + "]";
}

}  // namespace pvd_test
