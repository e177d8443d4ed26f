#pragma once
// Dir: a directory of the state store: named child directories, made and removed by name. An agent keeps its
// own directory; a feature marks that it is running by the child named after it, which exists exactly while
// the feature is on. Reactors hear handleEntry(name) when a child appears or goes away.

#include "platform/core/Attribute.h"
#include "platform/types/String.h"

namespace Calyx {

class Dir : public Object, public Notifier<Dir> {
 public:
  class Reactor : public ReactorBase<Dir> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleEntry(String const& /*name*/) {}
  };

  explicit Dir(String name) : name_(std::move(name)) {}
  String const& name() const { return name_; }

  // The child of that name, or null; ordered by name.
  Ptr<Dir> entry(String const& name) const { return entry_.value(name); }
  // Makes the child (or returns the one there is).
  Ptr<Dir> entryIs(String const& name) {
    return entry_.findOrCreate(*this, name, [&] { return make<Dir>(name); });
  }
  CALYX_COLLECTION_ACCESSORS(entry, String);

 protected:
  ~Dir() override = default;

 private:
  String name_;
  Collection<Dir, String, Ptr<Dir>> entry_{&Reactor::handleEntry};
};

}  // namespace Calyx
