#include "client/ctl/commands/workbench_report.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace {

using nlohmann::json;

json script() {
  return json::parse(R"({"script": "a", "source": "b", "places": [["s", 1, 2, 3, "", 0, -1, false],
      ["t", 4, 5, 6, "x", 0, 0, true]], "functions": [["", 1, 9]], "notes": [[7, "n"]]})");
}

json trace() {
  return json::parse(R"({"counts": [1, 2, 3, 4], "events": [
      ["c", 0, "isInNet", ["\"a\""], "true", 5, [["a", ["10.0.0.1"], 6, true]]],
      ["v", 1, "true", true]], "cut": false, "ownText": true, "helpers": [7, 8]})");
}

/// `report` with another value at `place`, a JSON pointer.
json with(json report, const std::string& place, const json& value) {
  report[json::json_pointer(place)] = value;
  return report;
}

const std::vector<client::Place> kPlaces(2,
                                         client::Place{"sh", 1, 1, 1, "isInNet(a)", 0, -1, false});

TEST(WorkbenchReport, OfAScriptIsRead) {
  const auto read = client::instrumentedOf(script());
  EXPECT_EQ(read.places[1].owner, 0);
  EXPECT_EQ(read.places[1].lastLine, 6U);
  EXPECT_EQ(read.notes[0].line, 7U);
  EXPECT_EQ(
      client::instrumentedOf(with(script(), "/places/0/1", client::kMostNumber)).places[0].line,
      client::kMostNumber);
}

TEST(WorkbenchReport, OfAScriptNamesPlacesAndFunctionsOfItsOwn) {
  for (const auto& [place, value] :
       std::vector<std::pair<std::string, json>>{{"/places/0/6", 2U},
                                                 {"/places/0/6", -2},
                                                 {"/places/0/5", 1U},
                                                 {"/places/0/5", -1},
                                                 {"/places/0/1", client::kMostNumber + 1},
                                                 {"/places/0/1", -1},
                                                 {"/places/0/1", 1.5},
                                                 {"/places/0/1", 1e300},
                                                 {"/places/0/1", "1"},
                                                 {"/places/0", json::array()},
                                                 {"/functions/0/1", 1e300},
                                                 {"/notes/0/0", nullptr},
                                                 {"/script", 7}}) {
    EXPECT_THROW(client::instrumentedOf(with(script(), place, value)), std::exception)
        << place << " " << value;
  }
  EXPECT_THROW(client::instrumentedOf(json()), std::exception);
}

TEST(WorkbenchReport, OfATraceIsRead) {
  const auto read = client::traceOf(trace(), kPlaces);
  ASSERT_EQ(read.events.size(), 2U);
  ASSERT_TRUE(read.events[0].call);
  EXPECT_EQ(read.events[0].call->lookups[0].microseconds, 6);
  EXPECT_EQ(read.events[0].place, 1U);  // the place of the value that follows the call
  EXPECT_EQ(read.counts[0].falsy, 4U);
  EXPECT_EQ(read.helperCalls, 7U);
  EXPECT_EQ(read.helperNanoseconds, 8U);
}

TEST(WorkbenchReport, OfATraceNamesTheCasesThatMatch) {
  const std::vector<client::Place> cases(3, client::Place{"k", 1, 1, 1, "a", 0, -1, false});
  auto report = trace();
  const auto matches = [&](const char* events) {
    report["events"] = json::parse(events);
    std::vector<std::optional<bool>> found;
    for (const auto& event : client::traceOf(report, cases).events) found.push_back(event.matches);
    return found;
  };
  using Found = std::vector<std::optional<bool>>;
  EXPECT_EQ(matches(R"([["v",0,"1",true],["v",1,"1",true],["e",2,1]])"), Found({false, true}));
  EXPECT_EQ(matches(R"([["v",0,"1",true],["e",2,1]])"), Found({false}));
  EXPECT_EQ(matches(R"([["e",2,1]])"), Found());
  // The default was entered, and then the case after it was reached from the default.
  EXPECT_EQ(matches(R"([["v",0,"1",true],["v",1,"1",true],["e",2,-1],["e",2,1]])"),
            Found({false, false}));
  EXPECT_EQ(matches(R"([["e",2,-1],["v",1,"1",true],["e",2,1]])"), Found({true}));
  report["cut"] = true;
  EXPECT_EQ(matches(R"([["v",0,"1",true],["v",1,"1",true]])"), Found({false, std::nullopt}));
  for (const char* broken : {R"([["e",2]])", R"([["e",2,-2]])", R"([["e",2,"1"]])"})
    EXPECT_THROW(matches(broken), std::exception) << broken;
}

TEST(WorkbenchReport, OfATraceNamesPlacesOfItsScriptAndTimesThatCanBeAdded) {
  EXPECT_NO_THROW(client::traceOf(with(trace(), "/events/0/5", 1'000'000'000'000U), kPlaces));
  EXPECT_NO_THROW(client::traceOf(with(trace(), "/events/0/1", 100'000U), kPlaces));
  for (const auto& [place, value] :
       std::vector<std::pair<std::string, json>>{{"/events/0/5", 1'000'000'000'001U},
                                                 {"/events/0/5", -1},
                                                 {"/events/0/1", 100'001U},
                                                 {"/events/0/6/0/2", -1},
                                                 {"/events/1/1", 2U},
                                                 {"/events/1/1", -1},
                                                 {"/counts/0", 2U},
                                                 {"/counts/1", -1},
                                                 {"/counts/1", 0.5},
                                                 {"/counts", json::array({1, 2, 3})},
                                                 {"/counts", 3},
                                                 {"/helpers/0", -1},
                                                 {"/helpers/1", 1'000'000'000'000'001U},
                                                 {"/helpers", nullptr},
                                                 {"/cut", 0},
                                                 {"/events", 3}}) {
    EXPECT_THROW(client::traceOf(with(trace(), place, value), kPlaces), std::exception)
        << place << " " << value;
  }
}

}  // namespace
