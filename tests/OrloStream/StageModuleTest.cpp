#include "OrloStream/StageModule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "WindowsAgentCommon/Exceptions.h"
#include "tests/OrloStream/modules/Journal.h"
#include "tests/support/TemporaryDirectory.h"

namespace OrloStream {
namespace {

using testing::AllOf;
using testing::HasSubstr;

// The message of the exception; empty if there is none.
std::string LoadFailure(const std::string& directory, const std::string& moduleName) {
  try {
    LoadStageModule(directory, moduleName);
  } catch (const WindowsAgentCommon::InitializationException& error) {
    return error.what();
  }
  return {};
}

TEST(StageModuleTest, AGoodModuleIsLoadedWithItsStage) {
  {
    const std::unique_ptr<Module> module = LoadStageModule(ORLO_TEST_MODULES, "UpperStage");
    ASSERT_NE(module, nullptr);
    ASSERT_NE(GetStage(*module), nullptr);
    EXPECT_EQ(GetStage(*module)->GetStageName(), "UpperStage");
    EXPECT_EQ(Journal::GetAlive(), 1);
  }
  EXPECT_EQ(Journal::GetAlive(), 0);
}

TEST(StageModuleTest, EveryLoadMakesAModuleOfItsOwn) {
  const std::unique_ptr<Module> first = LoadStageModule(ORLO_TEST_MODULES, "UpperStage");
  const std::unique_ptr<Module> second = LoadStageModule(ORLO_TEST_MODULES, "UpperStage");
  EXPECT_NE(first, second);
  EXPECT_NE(GetStage(*first), GetStage(*second));
}

TEST(StageModuleTest, TheDirectoryMayEndWithASeparator) {
  EXPECT_NE(LoadStageModule(std::string(ORLO_TEST_MODULES) + "/", "UpperStage"), nullptr);
}

TEST(StageModuleTest, AMissingFileIsNamed) {
  EXPECT_THAT(
      LoadFailure(ORLO_TEST_MODULES, "Nowhere"),
      AllOf(HasSubstr("there is no file"), HasSubstr(ORLO_TEST_MODULES), HasSubstr("Nowhere")));
}

TEST(StageModuleTest, AMissingDirectoryIsAMissingFile) {
  EXPECT_THAT(LoadFailure("no/such/directory", "UpperStage"),
              AllOf(HasSubstr("there is no file"), HasSubstr("no/such/directory")));
}

TEST(StageModuleTest, WhatIsNoModuleNameIsRefused) {
  for (const std::string name : {"", "a/b", "..\\b", "/"}) {
    EXPECT_THAT(LoadFailure(ORLO_TEST_MODULES, name), HasSubstr("not a module name")) << name;
  }
}

TEST(StageModuleTest, AFileThatIsNoLibraryCannotBeLoaded) {
  const TestSupport::TemporaryDirectory directory;
  std::ofstream(directory.Path() / "libGarbage.so") << "this is no library";
  std::ofstream(directory.Path() / "Garbage.dll") << "this is no library";
  EXPECT_THAT(LoadFailure(directory.Path().string(), "Garbage"),
              AllOf(HasSubstr("can't be loaded"), HasSubstr("Garbage")));
}

TEST(StageModuleTest, ALibraryWithoutTheFactoryIsRefused) {
  EXPECT_THAT(LoadFailure(ORLO_TEST_MODULES, "NoFactory"),
              HasSubstr("has no function make_NoFactory"));
}

TEST(StageModuleTest, AFactoryThatGivesNothingIsRefused) {
  EXPECT_EQ(LoadFailure(ORLO_TEST_MODULES, "NullFactory"), "make_NullFactory gave no module");
}

TEST(StageModuleTest, AModuleWhoseWriterIsNoStageIsRefusedAndDestroyed) {
  EXPECT_THAT(LoadFailure(ORLO_TEST_MODULES, "NotAStage"), HasSubstr("not a stream stage"));
  EXPECT_EQ(Journal::GetAlive(), 0);
}

TEST(StageModuleTest, AModuleWithoutAWriterIsRefused) {
  EXPECT_THAT(LoadFailure(ORLO_TEST_MODULES, "WithoutWriter"), HasSubstr("not a stream stage"));
}

}  // namespace
}  // namespace OrloStream
