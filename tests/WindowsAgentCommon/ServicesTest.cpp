#include "WindowsAgentCommon/Services.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace WindowsAgentCommon {
namespace {

class TestService : public IServiceComponent {};

// Asks for another service while it is destroyed.
class AskingService : public IServiceComponent {
 public:
  explicit AskingService(IServiceComponent** answer) : m_answer(answer) {}
  ~AskingService() override { *m_answer = _getService("other"); }

 private:
  IServiceComponent** m_answer;
};

TEST(ServicesTest, AnUnknownNameGivesNull) { EXPECT_EQ(_getService("nobody"), nullptr); }

TEST(ServicesTest, ARegisteredServiceIsFoundUnderItsNameOnly) {
  const auto service = std::make_shared<TestService>();
  RegisterService("one", service);
  EXPECT_EQ(_getService("one"), service.get());
  EXPECT_EQ(_getService("One"), nullptr);
  EXPECT_EQ(_getService(""), nullptr);
  UnregisterService("one");
}

TEST(ServicesTest, TheRegistryKeepsTheServiceAlive) {
  auto service = std::make_shared<TestService>();
  const std::weak_ptr<TestService> watcher = service;
  RegisterService("kept", std::move(service));
  EXPECT_FALSE(watcher.expired());
  UnregisterService("kept");
  EXPECT_TRUE(watcher.expired());
  EXPECT_EQ(_getService("kept"), nullptr);
}

TEST(ServicesTest, RegisteringANameAgainReplacesTheService) {
  auto first = std::make_shared<TestService>();
  const std::weak_ptr<TestService> watcher = first;
  const auto second = std::make_shared<TestService>();
  RegisterService("replaced", std::move(first));
  RegisterService("replaced", second);
  EXPECT_EQ(_getService("replaced"), second.get());
  EXPECT_TRUE(watcher.expired());
  UnregisterService("replaced");
}

TEST(ServicesTest, UnregisteringWhatIsNotThereDoesNothing) {
  UnregisterService("never there");
  EXPECT_EQ(_getService("never there"), nullptr);
}

TEST(ServicesTest, AServiceMayAskForOthersWhileItIsDestroyed) {
  const auto other = std::make_shared<TestService>();
  const ServiceRegistration registration("other", other);
  IServiceComponent* answer = nullptr;
  RegisterService("asking", std::make_shared<AskingService>(&answer));
  UnregisterService("asking");
  EXPECT_EQ(answer, other.get());
}

TEST(ServicesTest, ARegistrationEndsWithItsObject) {
  const auto service = std::make_shared<TestService>();
  {
    const ServiceRegistration registration("scoped", service);
    EXPECT_EQ(_getService("scoped"), service.get());
  }
  EXPECT_EQ(_getService("scoped"), nullptr);
}

TEST(ServicesTest, ManyThreadsFindRegisterAndUnregister) {
  const auto fixed = std::make_shared<TestService>();
  const ServiceRegistration registration("fixed", fixed);
  std::atomic<int> missed{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      const std::string own = "own " + std::to_string(number);
      for (int round = 0; round < 1000; ++round) {
        const auto service = std::make_shared<TestService>();
        RegisterService(own, service);
        missed += _getService(own) == service.get() ? 0 : 1;
        missed += _getService("fixed") == fixed.get() ? 0 : 1;
        UnregisterService(own);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(missed, 0);
}

}  // namespace
}  // namespace WindowsAgentCommon
