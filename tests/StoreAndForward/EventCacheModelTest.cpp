// Random sequences of operations, done with an event cache and with a model of what its
// documentation says. A sequence that finds a difference is made as short as it can be and printed.
//
// ORLO_MODEL_SEED=<n>        the same sequences again
// ORLO_MODEL_OPERATIONS=<n>  how many operations the four random tests do together, at least; those
//                            that are not possible when they come don't count
// ORLO_MODEL_REPLAY=<file>   replays a printed sequence

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/StoreAndForward/CacheModelGenerator.h"
#include "tests/StoreAndForward/CacheModelRunner.h"

namespace OrloStoreAndForward {
namespace {

constexpr std::size_t kSequence = 400;
constexpr std::uint64_t kOperations = 200'000;

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::stoull(text);
}

std::uint64_t FreshSeed() {
  std::random_device random;
  return random();
}

// The documented rules.
std::unique_ptr<CacheModel> MakeModel(std::uint32_t pageSize) {
  return std::make_unique<CacheModel>(pageSize);
}

bool Differs(const CacheOperations& operations, const MakeCacheModel& makeModel) {
  return RunCacheOperations(operations, makeModel).has_value();
}

// Empty, or what is to be printed.
std::string Report(const CacheOperations& operations, const MakeCacheModel& makeModel) {
  const auto difference = RunCacheOperations(operations, makeModel);
  if (!difference) {
    return {};
  }
  return "after operation " + std::to_string(difference->index + 1) + " of\n" + ToText(operations) +
         difference->text;
}

ShrunkOperations Shrink(const CacheOperations& failing, const MakeCacheModel& makeModel,
                        std::size_t runs = 4000) {
  return ShrinkCacheOperations(
      failing, [&](const CacheOperations& operations) { return Differs(operations, makeModel); },
      runs);
}

CacheOperations ReadOperations(const std::filesystem::path& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file.is_open()) << path;
  return ParseCacheOperations(std::string(std::istreambuf_iterator<char>(file), {}));
}

using Met = std::map<std::string, std::uint64_t>;

// Gives what was met, nothing if cache and model differ.
Met RunRandomSequences(CacheModelProfile profile) {
  const std::uint64_t operations = FromEnvironment("ORLO_MODEL_OPERATIONS", kOperations) / 4;
  const std::uint64_t seed = FromEnvironment("ORLO_MODEL_SEED", FreshSeed());
  std::cout << "ORLO_MODEL_SEED=" << seed << ", " << operations << " operations\n";
  Met met;
  std::uint64_t done = 0;
  for (; done - met[kPassedOver] < operations; done += kSequence) {
    // Sequences that follow each other must not have related seeds.
    std::seed_seq mixed{seed, seed >> 32, done, done >> 32, static_cast<std::uint64_t>(profile)};
    std::array<std::uint32_t, 2> words{};
    mixed.generate(words.begin(), words.end());
    CacheModelGenerator generator(std::uint64_t{words[0]} << 32 | words[1], profile);
    const CacheOperations sequence = generator.Next(kSequence);
    if (RunCacheOperations(sequence, MakeModel, &met)) {
      ADD_FAILURE() << "Replay with ORLO_MODEL_SEED=" << seed
                    << ", or keep these operations in a file and name it in ORLO_MODEL_REPLAY:\n"
                    << Report(Shrink(sequence, MakeModel).operations, MakeModel);
      return {};
    }
  }
  std::cout << done - met[kPassedOver] << " carried out, " << met[kPassedOver] << " passed over\n";
  for (const auto& [what, times] : met) {
    std::cout << "  " << what << ": " << times << '\n';
  }
  return met;
}

// Expects only what happens tens of times in every run, so that no seed fails by chance. A run too
// short to have met everything says nothing.
void ExpectMet(const Met& met, const std::vector<std::string>& expected) {
  if (FromEnvironment("ORLO_MODEL_OPERATIONS", kOperations) < kOperations) {
    return;
  }
  for (const std::string& what : expected) {
    EXPECT_TRUE(met.contains(what)) << what;
  }
}

TEST(EventCacheModel, CacheAndModelAgreeWhateverTheClockDoes) {
  ExpectMet(RunRandomSequences(CacheModelProfile::Order),
            {"push", "push over another chunk", "front", "front without its file", "pop",
             "pop without its file", "directory of the last chunk removed", "restart with nothing",
             "restart with chunks"});
}

TEST(EventCacheModel, CacheAndModelAgreeWhenFilesAreDamagedBehindItsBack) {
  ExpectMet(RunRandomSequences(CacheModelProfile::Damage),
            {"push without its minute directory", "front", "front of a short file",
             "front without its file", "pop without its file", "restart with chunks"});
}

TEST(EventCacheModel, CacheAndModelAgreeWhenRoomMemoryAndFilesAreRefused) {
  ExpectMet(RunRandomSequences(CacheModelProfile::Refusals),
            {"push without its minute directory", "push without room", "push without memory",
             "push without a file", "push written short", "directory of a failed push removed",
             "front of a short file", "front without its file", "front without memory",
             "front that can't read", "front without memory for a block", "creation that fails",
             "restart with a listing that breaks off"});
}

TEST(EventCacheModel, CacheAndModelAgreeWhenAllOfThatHappensTogether) {
  ExpectMet(RunRandomSequences(CacheModelProfile::Everything),
            {"push", "push over another chunk", "push written short", "front of a short file",
             "creation that fails", "restart with chunks"});
}

TEST(EventCacheModel, SequencesThatOnceMatteredStillAgree) {
  std::size_t replayed = 0;
  const std::filesystem::path directory(ORLO_TEST_DATA "/cache-model");
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const CacheOperations operations = ReadOperations(entry.path());
    EXPECT_FALSE(operations.empty()) << entry.path();
    EXPECT_EQ(Report(operations, MakeModel), "") << entry.path();
    ++replayed;
  }
  EXPECT_GE(replayed, 8u);
  if (const char* const file = std::getenv("ORLO_MODEL_REPLAY")) {
    EXPECT_EQ(Report(ReadOperations(file), MakeModel), "");
  }
}

// Models with one rule wrong. Each must be told from the cache.

class ForgetsScannedSizes : public CacheModel {
  using CacheModel::CacheModel;
  std::uint64_t SizeReleased(const Entry& entry) const override {
    return entry.ofEarlierRun ? 0 : entry.size;
  }
};

class EndsAtWhatWasRead : public CacheModel {
  using CacheModel::CacheModel;
  std::string AfterRead(const std::string&, const std::string& bytes) const override {
    return bytes;
  }
};

class ReturnsRoomOfLostChunks : public CacheModel {
  using CacheModel::CacheModel;
  bool KeepsRoomOfLostChunk() const override { return false; }
};

class KeepsDirectoryOfFailedPush : public CacheModel {
  using CacheModel::CacheModel;
  bool RemovesDirectoryOfFailedPush() const override { return false; }
};

class QueuesAPathOnce : public CacheModel {
  using CacheModel::CacheModel;
  void Enqueue(std::deque<Entry>& queue, Entry entry) const override {
    for (const Entry& queued : queue) {
      if (queued.Path() == entry.Path()) {
        return;
      }
    }
    queue.push_back(std::move(entry));
  }
};

class StoresUnreadBytes : public CacheModel {
  using CacheModel::CacheModel;
  std::string Stored(const std::string& bytes, const BlockSize& size) const override {
    return bytes.substr(size.read);
  }
};

class AlwaysPads : public CacheModel {
  using CacheModel::CacheModel;
  std::uint64_t PaddedSize(std::uint64_t size) const override {
    return CacheModel::PaddedSize(size + 1);
  }
};

class ScansNewestFirst : public CacheModel {
  using CacheModel::CacheModel;
  void Enqueue(std::deque<Entry>& queue, Entry entry) const override {
    if (entry.ofEarlierRun) {
      queue.push_front(std::move(entry));
    } else {
      queue.push_back(std::move(entry));
    }
  }
};

struct WrongRule {
  const char* name;
  MakeCacheModel makeModel;
};

void PrintTo(const WrongRule& rule, std::ostream* text) { *text << rule.name; }

template <typename Model>
WrongRule Wrong(const char* name) {
  return {name, [](std::uint32_t pageSize) { return std::make_unique<Model>(pageSize); }};
}

class WrongModel : public testing::TestWithParam<WrongRule> {};

TEST_P(WrongModel, IsFoundAndTheSequenceIsShrunkToWhatIsNeeded) {
  // What a wrong rule shrinks to is for looking at; it is the same in every run.
  constexpr std::uint64_t kSeed = 20160307;
  CacheModelGenerator generator(kSeed, CacheModelProfile::Everything);
  CacheOperations found;
  for (int tries = 0; tries < 50 && found.empty(); ++tries) {
    CacheOperations sequence = generator.Next(kSequence);
    if (Differs(sequence, GetParam().makeModel)) {
      found = std::move(sequence);
    }
  }
  ASSERT_FALSE(found.empty()) << "not noticed";
  ASSERT_FALSE(Differs(found, MakeModel));

  constexpr std::size_t kRuns = 20'000;
  const auto [shrunk, gaveUp] = Shrink(found, GetParam().makeModel, kRuns);
  std::cout << ToText(shrunk);
  ASSERT_FALSE(gaveUp);
  EXPECT_LE(shrunk.size(), 16u);
  for (std::size_t i = 0; i < shrunk.size(); ++i) {
    CacheOperations less = shrunk;
    less.erase(less.begin() + static_cast<std::ptrdiff_t>(i));
    EXPECT_FALSE(Differs(less, GetParam().makeModel)) << "not needed: " << ToText(shrunk[i]);
  }
  const CacheOperations replayed = ParseCacheOperations(ToText(shrunk));
  EXPECT_NE(Report(replayed, GetParam().makeModel), "");
  EXPECT_EQ(Report(replayed, MakeModel), "");
}

INSTANTIATE_TEST_SUITE_P(
    EventCacheModel, WrongModel,
    testing::Values(Wrong<ForgetsScannedSizes>("ForgetsScannedSizes"),
                    Wrong<EndsAtWhatWasRead>("EndsAtWhatWasRead"),
                    Wrong<ReturnsRoomOfLostChunks>("ReturnsRoomOfLostChunks"),
                    Wrong<KeepsDirectoryOfFailedPush>("KeepsDirectoryOfFailedPush"),
                    Wrong<QueuesAPathOnce>("QueuesAPathOnce"),
                    Wrong<StoresUnreadBytes>("StoresUnreadBytes"), Wrong<AlwaysPads>("AlwaysPads"),
                    Wrong<ScansNewestFirst>("ScansNewestFirst")),
    [](const testing::TestParamInfo<WrongRule>& rule) { return rule.param.name; });

TEST(CacheModelOperations, TextGivesTheSameOperationsBack) {
  const std::uint64_t seed = FromEnvironment("ORLO_MODEL_SEED", FreshSeed());
  SCOPED_TRACE(seed);
  CacheModelGenerator generator(seed, CacheModelProfile::Everything);
  const CacheOperations operations = generator.Next(5000);
  EXPECT_EQ(ParseCacheOperations("# comment\n\n" + ToText(operations)), operations);
}

TEST(CacheModelOperations, TextThatMeansNothingIsRefused) {
  for (const char* const line :
       {"bush 1", "push", "push x", "front 1", "push 1 3", "push 1 3:x", "push 1 -3:1", "stray 5",
        "front !", "front ! NoCall 5", "front ! CreateFile", "front ! CreateFile 0",
        "front ! CreateFile 5 1 1", "restart ! FindNextFile 0", "restart ! GetFileAttributes 2"}) {
    EXPECT_THROW(ParseCacheOperations(line), std::invalid_argument) << line;
  }
}

}  // namespace
}  // namespace OrloStoreAndForward
