#include "platform/entity/Dir.h"

namespace Calyx {

Ptr<Dir> Dir::entry(String const& name) const {
  Ptr<Dir> const* child = entry_.find(name);
  return child ? *child : nullptr;
}

Ptr<Dir> Dir::entryIs(String const& name) {
  if (Ptr<Dir> existing = entry(name)) return existing;
  Ptr<Dir> made = make<Dir>(name);
  entry_.is(name, made);
  notify(&Reactor::handleEntry, name);
  return made;
}

void Dir::entryDel(String const& name) {
  if (!entry_.del(name)) return;
  notify(&Reactor::handleEntry, name);
}

}  // namespace Calyx
