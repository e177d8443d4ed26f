// The manager's life cycle of a module on the simulated loop: desired -> opened -> published -> withdrawn.

#include "platform/io/InterfaceSimpleEthDevPamManager.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/core/EventLoop.h"
#include "platform/io/InMemoryPam.h"
#include "platform/io/PcapReplayPam.h"
#include "platform/types/PktManager.h"

using namespace Calyx;
using namespace Calyx::Interface;

namespace {

class OnIntfPam : public EthDevPamCollection::Reactor {
 public:
  OnIntfPam(Ptr<EthDevPamCollection const> c, std::function<void(IntfId const&)> f)
      : Reactor(std::move(c)), f_(std::move(f)) {}
  void handleIntfPam(IntfId const& intfId) override { f_(intfId); }

 private:
  std::function<void(IntfId const&)> f_;
};

class ManagerTest : public ::testing::Test {
 protected:
  ManagerTest() {
    manager->defaultBackendIs(PamBackend::inMemory());
    manager->enabledIs(true);
  }

  Ptr<EventLoop> loop = EventLoop::makeSimulated();
  Ptr<PamDesiredIntfDir> desired = make<PamDesiredIntfDir>();
  Ptr<EthDevPamCollection> collection = make<EthDevPamCollection>();
  Ptr<SimpleEthDevPamManager> manager = make<SimpleEthDevPamManager>(*loop, desired, collection);
  IntfId const et1{"Ethernet1"};
  IntfId const et2{"Ethernet2"};
};

TEST_F(ManagerTest, DesiredInterfaceIsOpenedAndPublishedOnTheNextTurnThenWithdrawn) {
  std::vector<std::string> heard;
  OnIntfPam reader(collection, [&](IntfId const& i) {
    heard.push_back(std::string(i.name()) + (collection->intfPam(i) ? "+" : "-"));
  });
  desired->intfDesiredIs(et1, true);
  EXPECT_EQ(collection->intfPam(et1), nullptr) << "opening waits for the manager's task";
  loop->runUntilIdle();
  ASSERT_NE(collection->intfPam(et1), nullptr);
  EXPECT_EQ(collection->intfPam(et1), manager->pam(et1));
  EXPECT_EQ(collection->intfPam(et1)->intfId(), et1);

  desired->intfDesiredIs(et1, false);
  loop->runUntilIdle();
  EXPECT_EQ(collection->intfPam(et1), nullptr);
  EXPECT_EQ(manager->pamCount(), 0u);
  EXPECT_EQ(heard, (std::vector<std::string>{"Ethernet1+", "Ethernet1-"}));
}

TEST_F(ManagerTest, ADesireWithdrawnBeforeTheTurnOpensNothing) {
  int notifications = 0;
  OnIntfPam reader(collection, [&](IntfId const&) { ++notifications; });
  desired->intfDesiredIs(et1, true);
  desired->intfDesiredDel(et1);
  loop->runUntilIdle();
  EXPECT_EQ(notifications, 0);
  EXPECT_EQ(manager->pamCount(), 0u);
}

TEST_F(ManagerTest, NothingIsOpenedWhileDisabledAndDisablingWithdrawsEverything) {
  manager->enabledIs(false);
  desired->intfDesiredIs(et1, true);
  desired->intfDesiredIs(et2, true);
  loop->runUntilIdle();
  EXPECT_EQ(collection->intfPamCount(), 0u);

  manager->enabledIs(true);
  loop->runUntilIdle();
  EXPECT_EQ(collection->intfPamCount(), 2u);

  manager->enabledIs(false);
  loop->runUntilIdle();
  EXPECT_EQ(collection->intfPamCount(), 0u);
}

TEST_F(ManagerTest, ReaderWithdrawingFromInsideItsHandlerKeepsItsModuleUntilItLetsGo) {
  desired->intfDesiredIs(et1, true);
  loop->runUntilIdle();
  Ptr<Pam const> held = collection->intfPam(et1);
  auto inMemory = ptrCast<InMemoryPam>(manager->pam(et1));
  int frames = 0;
  struct Reader : Pam::Reactor {
    Reader(Ptr<Pam const> p, std::function<void()> f) : Reactor(std::move(p)), f(std::move(f)) {}
    void handleReadable() override { f(); }
    std::function<void()> f;
  } reader(held, [&] {
    while (held->rxPkt()) ++frames;
    desired->intfDesiredDel(et1);  // the module must survive this handler
  });
  inMemory->enqueue(PktManager::global().newPkt());
  EXPECT_EQ(frames, 1);
  EXPECT_NE(collection->intfPam(et1), nullptr);
  loop->runUntilIdle();
  EXPECT_EQ(collection->intfPam(et1), nullptr);
  EXPECT_EQ(held->intfId(), et1);
}

TEST_F(ManagerTest, ChangingTheBackendOfAnOpenInterfaceReopensIt) {
  desired->intfDesiredIs(et1, true);
  loop->runUntilIdle();
  Ptr<Pam const> before = collection->intfPam(et1);
  manager->backendIs(et1, PamBackend::pcapReplay("/nonexistent/drops.pcap"));
  loop->runUntilIdle();
  Ptr<Pam const> after = collection->intfPam(et1);
  ASSERT_NE(after, nullptr);
  EXPECT_NE(after, before);
  auto const* replay = dynamic_cast<PcapReplayPam const*>(after.get());
  ASSERT_NE(replay, nullptr);
  EXPECT_EQ(replay->options().file, "/nonexistent/drops.pcap");
  manager->backendIs(et1, PamBackend::pcapReplay("/nonexistent/drops.pcap"));  // same again: kept
  loop->runUntilIdle();
  EXPECT_EQ(collection->intfPam(et1), after);
}

TEST_F(ManagerTest, DestroyingTheManagerWithdrawsItsModules) {
  desired->intfDesiredIs(et1, true);
  loop->runUntilIdle();
  manager = nullptr;
  EXPECT_EQ(collection->intfPamCount(), 0u);
}

}  // namespace
