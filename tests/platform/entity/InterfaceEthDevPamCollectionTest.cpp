// The collection of opened modules: a replacement notifies, the same module again does not, null deletes, and
// a reader that looks the module up in its handler sees the new state.

#include "platform/entity/InterfaceEthDevPamCollection.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/io/InMemoryPam.h"

using namespace Calyx;

namespace {

TEST(InterfaceEthDevPamCollectionTest, ReadersSeeEachChangeOfAnInterfacesModule) {
  IntfId const et1("Ethernet1");
  auto collection = make<Interface::EthDevPamCollection>();
  std::vector<Pam const*> seen;
  struct Reader : Interface::EthDevPamCollection::Reactor {
    Reader(Ptr<Interface::EthDevPamCollection const> c, std::vector<Pam const*>& s) : Reactor(c), seen(s) {}
    void handleIntfPam(IntfId const& i) override { seen.push_back(notifier()->intfPam(i).get()); }
    std::vector<Pam const*>& seen;
  } reader(collection, seen);

  auto first = make<InMemoryPam>(et1);
  auto second = make<InMemoryPam>(et1);
  collection->intfPamIs(et1, first);
  collection->intfPamIs(et1, first);  // no change
  collection->intfPamIs(et1, second);
  collection->intfPamIs(et1, nullptr);  // deletes
  collection->intfPamDel(et1);          // already gone
  EXPECT_EQ(seen, (std::vector<Pam const*>{first.get(), second.get(), nullptr}));
  EXPECT_EQ(collection->intfPamCount(), 0u);
  EXPECT_EQ(first->refCount(), 1u) << "the collection let go of its reference";
}

}  // namespace
