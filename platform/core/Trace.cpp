#include "platform/core/Trace.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include "platform/core/TraceSink.h"

namespace Calyx {

namespace {

struct LevelItem {
  std::string name;
  uint16_t mask = 0;
  bool startedEmpty = false;  // "NAME=" : all off; no level may follow
};

std::string_view trimmed(std::string_view text) {
  auto const first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  auto const last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

std::optional<int> levelNumber(std::string_view text) {
  int value = -1;
  auto const* end = text.data() + text.size();
  auto const [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || value < 0 || value > kTraceLevelMax) return std::nullopt;
  return value;
}

std::string levelError(std::string_view name, std::string_view item, std::string_view why) {
  return "Bad trace level \"" + std::string(item) + "\" for \"" + std::string(name) +
         "\": " + std::string(why) + ".";
}

// Adds one level ("3") or range ("0-5") to the item's mask; returns an error text or empty.
std::string levelsAdd(LevelItem& item, std::string_view text) {
  if (item.startedEmpty) return levelError(item.name, text, "no level may follow an empty level list");
  if (text.empty()) return levelError(item.name, text, "empty level");
  auto const dash = text.find('-');
  auto const low = levelNumber(trimmed(text.substr(0, dash)));
  auto const high = dash == std::string_view::npos ? low : levelNumber(trimmed(text.substr(dash + 1)));
  if (!low || !high) return levelError(item.name, text, "levels are 0 to 8");
  if (*low > *high) return levelError(item.name, text, "range runs backwards");
  for (int level = *low; level <= *high; ++level)
    item.mask = static_cast<uint16_t>(item.mask | (1u << level));
  return {};
}

// Splits "A=0-5,B=1,3,*=0-1" into items. A token with "=" starts an item; a token without it adds to the last
// one.
std::string settingParse(std::string_view setting, std::vector<LevelItem>& items) {
  if (trimmed(setting).empty()) return "Empty trace setting.";
  size_t start = 0;
  while (start <= setting.size()) {
    auto const comma = std::min(setting.find(',', start), setting.size());
    auto const token = trimmed(setting.substr(start, comma - start));
    start = comma + 1;
    auto const equals = token.find('=');
    if (equals == std::string_view::npos) {
      if (items.empty())
        return "Bad trace setting item \"" + std::string(token) + "\": expected NAME=LEVELS.";
      if (auto error = levelsAdd(items.back(), token); !error.empty()) return error;
      continue;
    }
    auto const name = trimmed(token.substr(0, equals));
    if (name.empty()) return "Bad trace setting item \"" + std::string(token) + "\": missing channel name.";
    auto const levels = trimmed(token.substr(equals + 1));
    items.push_back(LevelItem{std::string(name), 0, levels.empty()});
    if (levels.empty()) continue;
    if (auto error = levelsAdd(items.back(), levels); !error.empty()) return error;
  }
  return {};
}

}  // namespace

TraceHandle::TraceHandle(std::string_view name) : TraceHandle(TraceRegistry::instance().handle(name)) {}

void TraceHandle::levelIs(int level, bool on) {
  if (static_cast<unsigned>(level) > kTraceLevelMax) return;
  uint16_t const bit = static_cast<uint16_t>(1u << level);
  if (on) {
    channel_->levels.fetch_or(bit, std::memory_order_relaxed);
  } else {
    channel_->levels.fetch_and(static_cast<uint16_t>(~bit), std::memory_order_relaxed);
  }
}

void TraceHandle::write(int level, std::string_view line) const {
  if (!isEnabled(level)) return;
  channel_->registry->write(*channel_, level, line);
}

TraceRegistry::TraceRegistry() : sink_(std::make_shared<StderrTraceSink>()) {}

TraceRegistry::~TraceRegistry() = default;

TraceRegistry& TraceRegistry::instance() {
  // Deliberately never destroyed: static objects elsewhere may still trace while the process exits.
  static auto* const registry = new TraceRegistry;
  return *registry;
}

TraceHandle TraceRegistry::handle(std::string_view name) {
  std::lock_guard lock(mutex_);
  auto found = channels_.find(name);
  if (found == channels_.end()) {
    auto channel = std::make_unique<TraceChannel>(this, std::string(name), defaultLevels_);
    found = channels_.emplace(std::string(name), std::move(channel)).first;
  }
  return TraceHandle(found->second.get());
}

std::vector<std::string> TraceRegistry::names() const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> result;
  result.reserve(channels_.size());
  for (auto const& entry : channels_) result.push_back(entry.first);
  return result;
}

void TraceRegistry::sinkIs(std::shared_ptr<TraceSink> sink) {
  std::lock_guard lock(mutex_);
  sink_ = std::move(sink);
}

std::shared_ptr<TraceSink> TraceRegistry::sink() const {
  std::lock_guard lock(mutex_);
  return sink_;
}

std::string TraceRegistry::levelsApply(std::string_view setting) {
  std::vector<LevelItem> items;
  if (auto error = settingParse(setting, items); !error.empty()) return error;
  // "*" first, so that named channels keep their own levels wherever "*" stands in the setting.
  for (auto const& item : items) {
    if (item.name != "*") continue;
    std::lock_guard lock(mutex_);
    defaultLevels_ = item.mask;
    for (auto& entry : channels_) entry.second->levels.store(item.mask, std::memory_order_relaxed);
  }
  for (auto const& item : items) {
    if (item.name != "*") handle(item.name).levelsIs(item.mask);
  }
  return {};
}

void TraceRegistry::write(TraceChannel const& channel, int level, std::string_view line) const {
  // The sink is called outside the lock: a sink that is slow (a full disk) must not block sinkIs or handle().
  auto const current = sink();
  if (current) current->write(channel.name, level, line);
}

}  // namespace Calyx
