#pragma once
// A record layout as a number. Other processes read the feature's records straight from shared memory, and
// the host hands the plug-in tables of them, so a host and a plug-in must agree on every record's bytes. Each
// record carries kLayoutVersion (bumped for a change that keeps its size: fields reordered or retyped) and
// states its size beside its definition; versionOf folds each record's version, size and alignment into one
// number (FNV-1a over their 32-bit words), so a change of any record changes the number even when nobody
// remembered to bump anything.

#include <cstdint>
#include <type_traits>

namespace MirrorOnDrop::Layout {

inline constexpr uint32_t kFoldStart = 2166136261u;

constexpr uint32_t fold(uint32_t hash, uint32_t word) {
  for (int shift = 0; shift < 32; shift += 8) {
    hash ^= (word >> shift) & 0xffu;
    hash *= 16777619u;
  }
  return hash;
}

template <class Record>
constexpr uint32_t foldRecord(uint32_t hash) {
  return fold(fold(fold(hash, Record::kLayoutVersion), sizeof(Record)), alignof(Record));
}

// A list of records, in a fixed order; Replaced<Old, New> is the same list with one record swapped.
template <class... Records>
struct RecordSet {
  template <class Old, class New>
  using Replaced = RecordSet<std::conditional_t<std::is_same_v<Records, Old>, New, Records>...>;

  // own: the version of what holds the records (a table of functions, say), folded in first.
  static constexpr uint32_t versionOf(uint32_t own) {
    uint32_t hash = fold(kFoldStart, own);
    ((hash = foldRecord<Records>(hash)), ...);
    return hash;
  }
};

}  // namespace MirrorOnDrop::Layout
