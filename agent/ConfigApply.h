#pragma once
// Brings the platform entities the agent mounts for the feature in line with a configuration, through the
// entities' own setters: what did not change is not touched, so a reload shows the feature only the real
// transitions (a tracker renamed, an interval changed, a collector added or removed, support switched, an
// interface added or removed). New trackers and exporters enter fully built, and before anything leaves, so
// that a renamed tracker is replaced rather than first removed.

#include "agent/AgentConfig.h"
#include "agent/FeatureHost.h"

namespace ModAgent {

void configApply(AgentConfig const& config, MirrorOnDrop::FeatureMounts const& mounts);

// Before the feature is built over a tracker status an earlier run left under another name than the tracker
// now configured (the tracker renamed while the agent was down): the hardware configuration is given the
// configured tracker at once. The manager compares the stored tracker with the hardware's as it is built and
// adopts the new one; translated only later, the rename would reach a manager that has no dispatcher yet.
void hwConfigPresetForRename(MirrorOnDrop::FeatureMounts const& mounts);

}  // namespace ModAgent
