// What the factory gives when there is no memory. A program of its own, because it replaces the
// allocation that does not throw.

#include <ace/Module.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include "StoreAndForward/StoreAndForwardStage.h"

namespace {

std::atomic<std::size_t> g_refusedSize{0};

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (size == g_refusedSize) {
    return nullptr;
  }
  try {
    return ::operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace OrloStoreAndForward {
namespace {

using Module = ACE_Module<ACE_MT_SYNCH>;

class RefusedAllocation {
 public:
  explicit RefusedAllocation(std::size_t size) { g_refusedSize = size; }
  ~RefusedAllocation() { g_refusedSize = 0; }
};

TEST(StageWithoutMemory, ModuleThatCannotBeAllocatedGivesNull) {
  const RefusedAllocation refused(sizeof(Module));
  EXPECT_EQ(CreateStoreAndForwardModule(), nullptr);
}

TEST(StageWithoutMemory, StageThatCannotBeAllocatedGivesAModuleWithoutIt) {
  const RefusedAllocation refused(sizeof(StoreAndForwardStage));
  const std::unique_ptr<Module> module(CreateStoreAndForwardModule());
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(dynamic_cast<StoreAndForwardStage*>(module->writer()), nullptr);
  EXPECT_STREQ(module->name(), ACE_TEXT("StoreAndForwardStage"));
}

TEST(StageWithoutMemory, WithMemoryThereIsAStage) {
  const std::unique_ptr<Module> module(CreateStoreAndForwardModule());
  ASSERT_NE(module, nullptr);
  EXPECT_NE(dynamic_cast<StoreAndForwardStage*>(module->writer()), nullptr);
}

}  // namespace
}  // namespace OrloStoreAndForward
