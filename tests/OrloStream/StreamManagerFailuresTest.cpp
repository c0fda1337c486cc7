#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/Exceptions.h"
#include "tests/OrloStream/StreamParts.h"
#include "tests/support/Events.h"
#include "tests/support/LogCapture.h"

namespace OrloStream {
namespace {

using StreamParts::Definition;
using StreamParts::Entries;
using StreamParts::Stage;
using StreamParts::TestDestination;
using StreamParts::TestSource;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class StreamManagerFailuresTest : public StreamParts::StreamManagerFixture {
 protected:
  // Nothing of a stream that could not be created is left.
  void ExpectNothingLeft() {
    EXPECT_EQ(Journal::GetAlive(), 0);
    EXPECT_EQ(Journal::GetRunning(), 0);
    EXPECT_EQ(VisibleGroups(), Entries{});
    EXPECT_TRUE(m_manager->GetStreams().empty());
  }
};

TEST_F(StreamManagerFailuresTest, AMissingModuleIsNamedWithStreamAndReason) {
  EXPECT_THAT(CreationFailure(Definition(L"Str\u00f6m", {Stage("Nowhere")})),
              AllOf(StartsWith("Stream \"Str\xc3\xb6m\", module Nowhere: there is no file"),
                    HasSubstr(ORLO_TEST_MODULES)));
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, EveryUnusableModuleIsNamedWithItsReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"NoFactory", "has no function make_NoFactory"},
      {"NullFactory", "make_NullFactory gave no module"},
      {"ThrowingFactory", "the factory's reason"},
      {"NotAStage", "the module's writer task is not a stream stage"},
      {"WithoutWriter", "the module's writer task is not a stream stage"}};
  for (const auto& [module, reason] : cases) {
    SCOPED_TRACE(module);
    // The good stage before it has been made already.
    EXPECT_THAT(
        CreationFailure(Definition(L"S", {Stage("UpperStage"), Stage(module)})),
        AllOf(StartsWith(std::string("Stream \"S\", module ") + module + ": "), HasSubstr(reason)));
    ExpectNothingLeft();
    EXPECT_EQ(Journal::GetEntries(), Entries{});
  }
}

TEST_F(StreamManagerFailuresTest, AStageThatRefusesToOpenIsNamed) {
  EXPECT_EQ(CreationFailure(Definition(L"refused", {Stage("UpperStage"), Stage("LowerStage")})),
            "Stream \"refused\", module LowerStage: can't be opened");
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, AProfileThatThrowsStopsTheCreation) {
  EXPECT_EQ(CreationFailure(Definition(L"profile throws", {Stage("UpperStage")})),
            "Stream \"profile throws\", module UpperStage: the profile's reason");
  EXPECT_EQ(CreationFailure(Definition(L"profile throws a number", {Stage("UpperStage")})),
            "Stream \"profile throws a number\", module UpperStage: unknown exception");
  ExpectNothingLeft();
  EXPECT_EQ(Journal::GetEntries(), Entries{});
}

TEST_F(StreamManagerFailuresTest, WithoutAStatisticsServiceAStageWithAProfileCannotStart) {
  m_registration.reset();
  EXPECT_EQ(CreationFailure(Definition(L"S", {Stage("UpperStage")})),
            "Stream \"S\", module UpperStage: there is no statistics service");
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, ADestinationThatThrowsIsStoppedAndNoStageIsStarted) {
  StreamDefinition definition = Definition(L"S", {Stage("UpperStage")});
  definition.destination = std::make_unique<TestDestination>(0, true);
  EXPECT_EQ(CreationFailure(std::move(definition)),
            "Stream \"S\", destination: the destination's reason");
  EXPECT_EQ(Journal::GetEntries(), (Entries{"UpperStage.InitializeProfile",
                                            "Destination.Initialize", "Destination.Stop"}));
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, AStageThatThrowsIsStoppedWithWhatWasStartedBeforeIt) {
  EXPECT_EQ(CreationFailure(
                Definition(L"S", {Stage("UpperStage", {{"Throw", "1"}}), Stage("LowerStage")})),
            "Stream \"S\", module UpperStage: the stage's reason");
  EXPECT_EQ(Journal::GetEntries(),
            (Entries{"UpperStage.InitializeProfile", "LowerStage.InitializeProfile",
                     "Destination.Initialize", "LowerStage.Initialize S", "UpperStage.Initialize S",
                     "UpperStage.Stop", "LowerStage.Stop", "Destination.Stop"}));
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, AStageUpstreamOfTheOneThatThrowsIsNeitherStartedNorStopped) {
  EXPECT_NE(CreationFailure(
                Definition(L"S", {Stage("UpperStage"), Stage("LowerStage", {{"Throw", "1"}})})),
            "");
  EXPECT_EQ(Journal::GetEntries(),
            (Entries{"UpperStage.InitializeProfile", "LowerStage.InitializeProfile",
                     "Destination.Initialize", "LowerStage.Initialize S", "LowerStage.Stop",
                     "Destination.Stop"}));
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, WhatRunsWhenAStageCannotStartIsStoppedWhenTheCallerWishes) {
  Stream& stream = m_manager->Prepare(
      Definition(L"S", {Stage("UpperStage", {{"Throw", "1"}}), Stage("LowerStage")}));
  EXPECT_EQ(Journal::GetEntries(),
            (Entries{"UpperStage.InitializeProfile", "LowerStage.InitializeProfile",
                     "Destination.Initialize"}));
  Journal::Clear();
  EXPECT_THROW(m_manager->StartStages(stream), WindowsAgentCommon::InitializationException);
  EXPECT_EQ(Journal::GetEntries(), (Entries{"LowerStage.Initialize S", "UpperStage.Initialize S"}));
  Journal::Clear();
  m_manager->Remove(stream);
  EXPECT_EQ(Journal::GetEntries(),
            (Entries{"UpperStage.Stop", "LowerStage.Stop", "Destination.Stop"}));
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, TheExceptionKeepsThePlaceWhereItArose) {
  try {
    m_manager->Create(Definition(L"S", {Stage("UpperStage", {{"Throw", "1"}})}));
    FAIL();
  } catch (const WindowsAgentCommon::InitializationException& error) {
    EXPECT_EQ(error.GetFile(), "the file");
    EXPECT_EQ(error.GetFunction(), "the function");
    EXPECT_EQ(error.GetLine(), 12);
  }
}

TEST_F(StreamManagerFailuresTest, AfterAFailureTheSameNameCanBeCreated) {
  EXPECT_NE(CreationFailure(Definition(L"S", {Stage("UpperStage", {{"Throw", "1"}})})), "");
  EXPECT_EQ(CreationFailure(Definition(L"S", {Stage("UpperStage")})), "");
}

TEST_F(StreamManagerFailuresTest, ASecondStreamOfANameIsRefusedAndTheFirstGoesOn) {
  Stream& first = m_manager->Create(Definition(L"S", {Stage("UpperStage")}));
  EXPECT_EQ(CreationFailure(Definition(L"S", {Stage("LowerStage")})),
            "Stream \"S\": there is a stream of this name already");
  EXPECT_EQ(VisibleGroups(), Entries{"StreamStage/S"});
  EXPECT_EQ(m_manager->GetStreams().size(), 1u);
  EXPECT_EQ(first.Post(TestSupport::MakeEvent("head", "one")).GetWord(), 0u);
}

TEST_F(StreamManagerFailuresTest, AStreamWithoutADestinationIsRefused) {
  StreamDefinition definition = Definition(L"S", {Stage("UpperStage")});
  definition.destination.reset();
  EXPECT_EQ(CreationFailure(std::move(definition)), "Stream \"S\": it has no destination");
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, SourcesOfAStreamThatCannotBeCreatedAreNeverStarted) {
  StreamDefinition definition = Definition(L"S", {Stage("Nowhere")});
  definition.sources.push_back(std::make_unique<TestSource>("Source"));
  EXPECT_NE(CreationFailure(std::move(definition)), "");
  EXPECT_EQ(Journal::GetEntries(), Entries{});
  ExpectNothingLeft();
}

TEST_F(StreamManagerFailuresTest, ASourceThatThrowsStopsThoseBeforeItAndNamesTheStream) {
  StreamDefinition definition = Definition(L"S", {});
  definition.sources.push_back(std::make_unique<TestSource>("First"));
  definition.sources.push_back(std::make_unique<TestSource>("Second", true));
  definition.sources.push_back(std::make_unique<TestSource>("Third"));
  Stream& stream = m_manager->Create(std::move(definition));
  try {
    m_manager->StartSources(stream);
    FAIL();
  } catch (const WindowsAgentCommon::InitializationException& error) {
    EXPECT_STREQ(error.what(), "Stream \"S\": the source's reason");
    EXPECT_EQ(error.GetFile(), "the file");
    EXPECT_EQ(error.GetLine(), 34);
  }
  const Entries entries = Journal::GetEntries();
  EXPECT_EQ(entries.back(), "First.Stop");
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Second.Start"), 1);
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Third.Start"), 0);
  EXPECT_EQ(Journal::GetRunning(), 0);
  // The stages still take events, and the stream is taken down as any other.
  EXPECT_EQ(stream.Post(TestSupport::MakeEvent("head", "one")).GetWord(), 0u);
  m_manager->Remove(stream);
  EXPECT_EQ(Journal::GetEntries().back(), "Destination.Stop");
}

TEST_F(StreamManagerFailuresTest, AStopThatFailsIsLogged) {
  const TestSupport::LogCapture log;
  m_manager->Remove(m_manager->Create(Definition(L"unstoppable", {Stage("UpperStage")})));
  EXPECT_TRUE(log.Contains(WindowsAgentCommon::LogLevel::Error, "Code.StreamManager",
                           "Stream \"unstoppable\", module UpperStage could not be stopped: the "
                           "stop's reason"));
  ExpectNothingLeft();
}

}  // namespace
}  // namespace OrloStream
