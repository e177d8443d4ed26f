#pragma once
// SlotTableReader: another process's read-only view of a shared-table segment, with records as bytes.
// SharedTableReader<K, V> is the typed view over it.
//
// Every call first makes sure the mapping is current: it opens the file when nothing is mapped yet, and
// re-opens it when the writer has marked the mapped segment retired (it grew or was restarted) or the path
// names another file (a writer that stopped between the two steps of replacing it). That check is one stat()
// per call. Each record is read under its slot's sequence lock, so a record is never torn; a snapshot is
// consistent per record, not across records. Nothing here aborts: a missing file, a damaged or foreign
// header, a damaged slot, or a slot the writer kept busy too long leaves the call empty and sets error() and
// errorText().

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/shm/MappedFile.h"
#include "platform/shm/SharedTableLayout.h"
#include "platform/shm/SlotRecordTraits.h"

namespace Calyx {

enum class SharedTableReadError {
  none,
  missing,       // no file at the path (yet)
  damaged,       // a header or slot breaks its invariants
  incompatible,  // a sound segment of another layout or record size
  stale,         // the file is retired and nothing replaced it: its writer stopped publishing
  busy,          // a slot stayed mid-write through every retry (a writer stopped in the middle of a change)
  failed,        // the file could not be opened or mapped
};

class SlotTableReader {
 public:
  SlotTableReader(std::string path, SlotRecordTraits const& traits)
      : path_(std::move(path)), traits_(traits) {}

  // Leaves a sound, live mapping, or fails with the reason. Every public call of the typed reader starts
  // here.
  bool refresh();

  // One consistent copy of slot i: its state, and for a used slot its key and value; false (with the error
  // set) when it is damaged or stays busy.
  bool readSlot(size_t i, uint32_t& state, void* key, void* value);
  // Copies the value of key into value; false when it has none or on error.
  bool find(void const* key, void* keyScratch, void* value);

  // Of the mapped segment; valid after a successful refresh().
  SegmentHeader const& header() const { return *reinterpret_cast<SegmentHeader const*>(seg_.base()); }

  SharedTableReadError error() const { return error_; }
  std::string const& errorText() const { return errorText_; }
  std::string const& path() const { return path_; }

 private:
  bool fail(SharedTableReadError e, std::string text);
  bool reopen();
  bool headerSound();
  bool readSlot(size_t i, uint32_t& state, uint32_t& tag, void* key, void* value);
  bool readSlotOnce(size_t i, uint32_t& state, uint32_t& tag, void* key, void* value, bool& consistent) const;
  bool slotSound(size_t i, uint32_t state, void const* key, void const* value);

  std::string path_;
  SlotRecordTraits traits_;  // a copy: it is small, and keeps the reader assignable
  MappedFile seg_;
  SharedTableReadError error_ = SharedTableReadError::none;
  std::string errorText_;
};

}  // namespace Calyx
