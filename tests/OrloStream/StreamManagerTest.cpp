#include "OrloStream/StreamManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/OrloStream/StreamParts.h"
#include "tests/support/Events.h"

namespace OrloStream {
namespace {

using StreamParts::Definition;
using StreamParts::Entries;
using StreamParts::Stage;
using StreamParts::TestSource;
using testing::Contains;
using TestSupport::MakeEvent;

using StreamManagerTest = StreamParts::StreamManagerFixture;

TEST_F(StreamManagerTest, ProfilesComeFirstThenEverythingIsInitialisedDownstreamFirst) {
  m_manager->Create(Definition(L"S", {Stage("UpperStage"), Stage("LowerStage")}));
  EXPECT_EQ(
      Journal::GetEntries(),
      (Entries{"UpperStage.InitializeProfile", "LowerStage.InitializeProfile",
               "Destination.Initialize", "LowerStage.Initialize S", "UpperStage.Initialize S"}));
}

TEST_F(StreamManagerTest, TheStreamKnowsItsParts) {
  Stream& stream =
      m_manager->Create(Definition(L"Str\u00f6m", {Stage("UpperStage"), Stage("LowerStage")}));
  EXPECT_EQ(stream.GetName(), L"Str\u00f6m");
  ASSERT_EQ(stream.GetStages().size(), 2u);
  EXPECT_EQ(stream.GetStages()[0]->GetStageName(), "UpperStage");
  EXPECT_EQ(stream.GetStages()[1]->GetStageName(), "LowerStage");
  EXPECT_EQ(stream.GetStages()[1]->GetParentStreamName(), L"Str\u00f6m");
  EXPECT_NE(dynamic_cast<StreamParts::TestDestination*>(&stream.GetDestination()), nullptr);
  ASSERT_EQ(m_manager->GetStreams().size(), 1u);
  EXPECT_EQ(m_manager->GetStreams()[0].get(), &stream);
}

TEST_F(StreamManagerTest, AnEventPassesEveryStageInOrder) {
  Stream& stream = m_manager->Create(Definition(L"S", {Stage("UpperStage"), Stage("LowerStage")}));
  Journal::Clear();
  EXPECT_EQ(stream.Post(MakeEvent("head", "one")).GetWord(), 0u);
  EXPECT_EQ(Journal::GetEntries(), (Entries{"UpperStage.ProcessMessage",
                                            "LowerStage.ProcessMessage", "Destination.put one"}));
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(StreamManagerTest, TwoStagesMayComeFromTheSameModule) {
  Stream& stream = m_manager->Create(Definition(L"S", {Stage("UpperStage"), Stage("UpperStage")}));
  Journal::Clear();
  stream.Post(MakeEvent("head", "one"));
  EXPECT_EQ(Journal::GetEntries(), (Entries{"UpperStage.ProcessMessage",
                                            "UpperStage.ProcessMessage", "Destination.put one"}));
}

TEST_F(StreamManagerTest, AStreamMayHaveNoStage) {
  Stream& stream = m_manager->Create(Definition(L"S", {}));
  stream.Post(MakeEvent("head", "one"));
  EXPECT_EQ(Journal::GetEntries(), (Entries{"Destination.Initialize", "Destination.put one"}));
}

TEST_F(StreamManagerTest, EachStageGetsItsOwnSettings) {
  Stream& stream = m_manager->Create(
      Definition(L"S", {Stage("UpperStage"), Stage("LowerStage", {{"Result", "64"}})}));
  EXPECT_EQ(stream.Post(MakeEvent("head", "one")).GetWord(), 64u);
  EXPECT_THAT(Journal::GetEntries(), testing::Not(Contains("Destination.put one")));
}

TEST_F(StreamManagerTest, StatisticsGroupsCarryTheStreamsNameUntilItIsRemoved) {
  Stream& first =
      m_manager->Create(Definition(L"Str\u00f6m", {Stage("UpperStage"), Stage("LowerStage")}));
  m_manager->Create(Definition(L"Other", {Stage("UpperStage")}));
  EXPECT_EQ(VisibleGroups(),
            (Entries{"StreamStage/Str\xc3\xb6m", "StreamStage/Str\xc3\xb6m", "StreamStage/Other"}));
  m_manager->Remove(first);
  EXPECT_EQ(VisibleGroups(), Entries{"StreamStage/Other"});
}

TEST_F(StreamManagerTest, StagesAreStoppedInStreamOrderAndTheDestinationLast) {
  Stream& stream = m_manager->Create(Definition(L"S", {Stage("UpperStage"), Stage("LowerStage")}));
  EXPECT_EQ(Journal::GetRunning(), 2);
  Journal::Clear();
  m_manager->StopStages(stream);
  EXPECT_EQ(Journal::GetEntries(),
            (Entries{"UpperStage.Stop", "LowerStage.Stop", "Destination.Stop"}));
  EXPECT_EQ(Journal::GetRunning(), 0);
}

TEST_F(StreamManagerTest, StoppingTwiceStopsOnce) {
  Stream& stream = m_manager->Create(Definition(L"S", {Stage("UpperStage")}));
  m_manager->StopStages(stream);
  Journal::Clear();
  m_manager->StopStages(stream);
  m_manager->StopSources(stream);
  EXPECT_EQ(Journal::GetEntries(), Entries{});
}

TEST_F(StreamManagerTest, AStageThatCannotBeStoppedKeepsNothingElseRunning) {
  Stream& stream =
      m_manager->Create(Definition(L"unstoppable", {Stage("UpperStage"), Stage("LowerStage")}));
  Journal::Clear();
  m_manager->StopStages(stream);
  EXPECT_EQ(Journal::GetEntries(),
            (Entries{"UpperStage.Stop", "LowerStage.Stop", "Destination.Stop"}));
}

TEST_F(StreamManagerTest, SourcesRunBetweenStartAndStop) {
  StreamDefinition definition = Definition(L"S", {Stage("UpperStage")});
  definition.sources.push_back(std::make_unique<TestSource>("First"));
  definition.sources.push_back(std::make_unique<TestSource>("Second"));
  Stream& stream = m_manager->Create(std::move(definition));
  EXPECT_THAT(Journal::GetEntries(), testing::Not(Contains("First.Start")));

  m_manager->StartSources(stream);
  EXPECT_TRUE(TestSupport::WaitUntil([] {
    const Entries entries = Journal::GetEntries();
    return std::count(entries.begin(), entries.end(), "Destination.put from First") > 0 &&
           std::count(entries.begin(), entries.end(), "Destination.put from Second") > 0;
  }));
  m_manager->StopSources(stream);
  const Entries entries = Journal::GetEntries();
  EXPECT_LT(std::find(entries.begin(), entries.end(), "First.Start"),
            std::find(entries.begin(), entries.end(), "Second.Start"));
  EXPECT_LT(std::find(entries.begin(), entries.end(), "First.Stop"),
            std::find(entries.begin(), entries.end(), "Second.Stop"));
  EXPECT_EQ(entries.back(), "Second.Stop");
  EXPECT_EQ(Journal::GetRunning(), 1) << "the stage's thread";
}

TEST_F(StreamManagerTest, StartingTwiceStartsOnceAndStoppedSourcesStartAgain) {
  StreamDefinition definition = Definition(L"S", {});
  definition.sources.push_back(std::make_unique<TestSource>("Source"));
  Stream& stream = m_manager->Create(std::move(definition));
  m_manager->StartSources(stream);
  m_manager->StartSources(stream);
  m_manager->StopSources(stream);
  m_manager->StartSources(stream);
  m_manager->StopSources(stream);
  const Entries entries = Journal::GetEntries();
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Source.Start"), 2);
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Source.Stop"), 2);
}

TEST_F(StreamManagerTest, SourcesThatAreTakenAwayRunOnAndServeAnotherStream) {
  StreamDefinition definition = Definition(L"S", {});
  definition.sources.push_back(std::make_unique<TestSource>("Source"));
  Stream& stream = m_manager->Create(std::move(definition));
  m_manager->StartSources(stream);
  auto sources = m_manager->TakeSources(stream);
  ASSERT_EQ(sources.size(), 1u);
  m_manager->StopSources(stream);
  Entries entries = Journal::GetEntries();
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Source.Stop"), 0);
  sources.front()->Stop();
  Stream& other = m_manager->Create(Definition(L"T", {}));
  m_manager->SetSources(other, std::move(sources));
  m_manager->Remove(stream);
  m_manager->StartSources(other);
  m_manager->Remove(other);
  entries = Journal::GetEntries();
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Source.Start"), 2);
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Source.Stop"), 2);
}

TEST_F(StreamManagerTest, RemovingStopsSourcesThenStagesThenDestinationAndDestroysAll) {
  StreamDefinition definition = Definition(L"S", {Stage("UpperStage"), Stage("LowerStage")});
  definition.sources.push_back(std::make_unique<TestSource>("Source"));
  Stream& stream = m_manager->Create(std::move(definition));
  m_manager->StartSources(stream);
  EXPECT_EQ(Journal::GetAlive(), 4);
  m_manager->Remove(stream);
  Entries entries = Journal::GetEntries();
  ASSERT_GE(entries.size(), 4u);
  entries.erase(entries.begin(), entries.end() - 4);
  EXPECT_EQ(entries,
            (Entries{"Source.Stop", "UpperStage.Stop", "LowerStage.Stop", "Destination.Stop"}));
  EXPECT_EQ(Journal::GetAlive(), 0);
  EXPECT_EQ(Journal::GetRunning(), 0);
  EXPECT_TRUE(m_manager->GetStreams().empty());
}

TEST_F(StreamManagerTest, RemovingAStoppedStreamStopsNothingAgain) {
  Stream& stream = m_manager->Create(Definition(L"S", {Stage("UpperStage")}));
  m_manager->StopStages(stream);
  Journal::Clear();
  m_manager->Remove(stream);
  EXPECT_EQ(Journal::GetEntries(), Entries{});
}

TEST_F(StreamManagerTest, TheManagerTakesDownWhatIsLeftNewestFirst) {
  m_manager->Create(Definition(L"Old", {Stage("UpperStage")}));
  m_manager->Create(Definition(L"New", {Stage("LowerStage")}));
  Journal::Clear();
  m_manager.reset();
  EXPECT_EQ(Journal::GetEntries(), (Entries{"LowerStage.Stop", "Destination.Stop",
                                            "UpperStage.Stop", "Destination.Stop"}));
  EXPECT_EQ(Journal::GetAlive(), 0);
}

TEST_F(StreamManagerTest, ARemovedNameCanBeUsedAgain) {
  m_manager->Remove(m_manager->Create(Definition(L"S", {Stage("UpperStage")})));
  Stream& stream = m_manager->Create(Definition(L"S", {Stage("UpperStage")}));
  EXPECT_EQ(VisibleGroups(), Entries{"StreamStage/S"});
  EXPECT_EQ(stream.Post(MakeEvent("head", "one")).GetWord(), 0u);
}

TEST_F(StreamManagerTest, RemovingOneStreamLeavesTheOthersRunning) {
  Stream& first = m_manager->Create(Definition(L"1", {Stage("UpperStage")}));
  Stream& second = m_manager->Create(Definition(L"2", {Stage("UpperStage")}));
  m_manager->Remove(first);
  Journal::Clear();
  EXPECT_EQ(second.Post(MakeEvent("head", "one")).GetWord(), 0u);
  EXPECT_THAT(Journal::GetEntries(), Contains("Destination.put one"));
  EXPECT_EQ(Journal::GetRunning(), 1);
}

}  // namespace
}  // namespace OrloStream
