// The desired-interface directory and the interface set of the feature agent's common data: notification per
// key, only on change, and walks that survive changes made by the handlers they trigger.

#include "platform/entity/InterfacePamDesiredIntfDir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Calyx;

namespace {

IntfId const et1("Ethernet1"), et2("Ethernet2");

struct OnDesired : Interface::PamDesiredIntfDir::Reactor {
  explicit OnDesired(Ptr<Interface::PamDesiredIntfDir> d) : Reactor(d), dir(std::move(d)) {}
  void handleIntfDesired(IntfId const& i) override {
    heard.push_back(std::string(i.name()) + "=" +
                    (dir->intfDesiredHas(i) ? (dir->intfDesired(i) ? "T" : "F") : "-"));
  }
  Ptr<Interface::PamDesiredIntfDir> dir;
  std::vector<std::string> heard;
};

TEST(InterfacePamDesiredIntfDirTest, NotifiesPerKeyOnlyOnChange) {
  auto dir = make<Interface::PamDesiredIntfDir>();
  OnDesired r(dir);
  dir->intfDesiredIs(et1, true);
  dir->intfDesiredIs(et1, true);  // no change
  dir->intfDesiredIs(et1, false);
  dir->intfDesiredDel(et2);  // absent
  dir->intfDesiredIs(et2, true);
  dir->intfDesiredDelAll();
  EXPECT_EQ(r.heard, (std::vector<std::string>{"Ethernet1=T", "Ethernet1=F", "Ethernet2=T", "Ethernet1=-",
                                               "Ethernet2=-"}));
  EXPECT_FALSE(dir->intfDesired(et1)) << "an absent entry is not desired";
}

}  // namespace
