#include "Agent/ReloadPlan.h"

#include <gtest/gtest.h>

#include "Agent/ConfigurationReader.h"

namespace {

using OrloAgent::MakeReloadPlan;
using OrloAgent::StreamOptions;
using Names = std::vector<std::string>;

StreamOptions Stream(const std::string& name, const std::string& source = "{ type: stdin }",
                     const std::string& destination = "{ type: stdout }",
                     const std::string& settings = "{ DataChunkPeriod: 5 }") {
  const auto configuration = OrloAgent::ParseConfiguration(
      "streams:\n- name: " + name + "\n  source: " + source +
      "\n  stages: [ { module: StoreAndForwardStage, settings: " + settings +
      " } ]\n  destination: " + destination + "\n");
  EXPECT_TRUE(configuration.mistakes.empty());
  return configuration.options.streams.at(0);
}

TEST(ReloadPlan, StreamsAreSortedByWhatBecomesOfThem) {
  const auto plan =
      MakeReloadPlan({Stream("A"), Stream("B"), Stream("C")},
                     {Stream("D"), Stream("C"), Stream("A", "{ type: file, path: x }")});
  EXPECT_EQ(plan.same, Names{"C"});
  EXPECT_EQ(plan.changed, Names{"A"});
  EXPECT_EQ(plan.added, Names{"D"});
  EXPECT_EQ(plan.removed, Names{"B"});
}

TEST(ReloadPlan, EachPartOfASectionMakesADifference) {
  const std::string tcp =
      "{ type: syslog, listen: \"tls://h:1\", tls: { certificate: a, key: b } }";
  const StreamOptions now = Stream("A", tcp, "{ type: file, path: x }");
  EXPECT_EQ(MakeReloadPlan({now}, {Stream("A", tcp, "{ type: file, path: x }")}).same, Names{"A"});
  for (const StreamOptions& other : {
           Stream("A", "{ type: syslog, listen: \"tls://h:1\", tls: { certificate: a, key: c } }",
                  "{ type: file, path: x }"),
           Stream("A", "[ " + tcp + ", { type: stdin } ]", "{ type: file, path: x }"),
           Stream("A", tcp, "{ type: file, path: y }"),
           Stream("A", tcp, "{ type: file, path: x }", "{ DataChunkPeriod: 6 }"),
       }) {
    EXPECT_EQ(MakeReloadPlan({now}, {other}).changed, Names{"A"});
  }
}

TEST(ReloadPlan, WhatStandsThereAsADefaultIsNoChange) {
  EXPECT_EQ(MakeReloadPlan({Stream("A")}, {Stream("A", "{ type: stdin, max_event_size: 64KiB }",
                                                  "{ type: stdout, send_timeout: 5000ms }")})
                .same,
            Names{"A"});
}

}  // namespace
