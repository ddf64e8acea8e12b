// The value streams that writers hand out from write_string_stream() and write_binary().
#pragma once

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zoserialize/export.h>

namespace zoserialize::impl {

class ValueStreamBase;

// A writer's open value stream, if any. It is the one place that knows the stream, so that the
// writer's next operation, flush(), close() and the stream's own close() all end the same value
// exactly once. Not thread-safe, like the writer that owns it.
class ZOSERIALIZE_API ValueStreamSlot {
 public:
  ValueStreamSlot() = default;
  ValueStreamSlot(ValueStreamSlot const&) = delete;
  ValueStreamSlot& operator=(ValueStreamSlot const&) = delete;
  // Abandons an open stream: a caller who still holds it gets failures, never a dead writer.
  ~ValueStreamSlot() { abandon(); }

  bool is_open() const noexcept { return static_cast<bool>(stream_); }
  // Makes `stream` the open value stream and returns it as the caller receives it (a second
  // reference). The previous value must have been finished.
  zocore::InterfacePtr<zocore::IWriteStream> open(zocore::RefCountPtr<ValueStreamBase> stream);
  // Ends the open value, if any: its buffered rest goes out through the stream's finish hook.
  // The stream leaves the slot first, so a failure while writing the rest does not leave a
  // value open that the next operation would try to finish again.
  void finish();
  // Forgets the open stream without writing anything; its later writes fail.
  void abandon() noexcept;

 private:
  zocore::RefCountPtr<ValueStreamBase> stream_;
};

// ValueStreamBase buffers the bytes written to a value and hands them to its writer in blocks.
// Up to `capacity` bytes are gathered and a full buffer goes out as one block; when the buffer
// is empty and at least `capacity` bytes arrive, the largest multiple of `granule` among them
// goes out at once, without a copy. So every block except the rest handed over at the finish is
// a multiple of the granule: with 3, base64 text of consecutive blocks has no inner padding.
//
// The value ends when the stream is closed or when the writer's next operation starts; writes
// after that fail with "Binary stream writer object has already been closed"
// (error::zoserialize_writer_state), whatever the kind of value. The stream only refers back to
// its writer through the slot, which abandons it when the writer goes away.
//
// The counted base comes first: GCC 12 at -O3 otherwise reports the delete of a devirtualised
// object at a base offset as freeing a non-heap pointer.
class ZOSERIALIZE_API ValueStreamBase : public zocore::RefCounted<zocore::AtomicRefCount>,
                                        public zocore::IWriteStream {
 public:
  ValueStreamBase(ValueStreamBase const&) = delete;
  ValueStreamBase& operator=(ValueStreamBase const&) = delete;

  void write(void const* data, unsigned size) override;
  // Ends the value, as the writer's next operation would; does nothing once it has ended.
  void close() override;

  bool is_finished() const noexcept { return slot_ == nullptr; }

 protected:
  // `buffer` holds `capacity` bytes and belongs to the derived stream. `write_function` names the
  // write operation in the location of the error raised after the value ended.
  ValueStreamBase(ValueStreamSlot& slot, unsigned char* buffer, unsigned capacity, unsigned granule,
                  char const* write_function) noexcept
      : slot_(&slot),
        buffer_(buffer),
        capacity_(capacity),
        granule_(granule),
        write_function_(write_function) {}
  ~ValueStreamBase() override = default;

  // A full buffer, or a run of whole granules written past the buffer.
  virtual void emit_block(unsigned char const* data, unsigned size) = 0;
  // The end of the value, with the buffered rest (possibly empty).
  virtual void emit_final(unsigned char const* rest, unsigned size) = 0;

 private:
  friend class ValueStreamSlot;

  // Detaches from the slot, then hands over the rest.
  void finish();
  [[noreturn]] void throw_finished() const;

  ValueStreamSlot* slot_;  // null once the value has ended
  unsigned char* buffer_;
  unsigned capacity_;
  unsigned granule_;
  unsigned filled_ = 0;
  char const* write_function_;
};

// A value stream with its buffer inline.
template <unsigned Capacity, unsigned Granule>
class BufferedValueStream : public ValueStreamBase {
 protected:
  // The buffer is left uninitialised: only the bytes written into it are ever read.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
  BufferedValueStream(ValueStreamSlot& slot, char const* write_function) noexcept
      : ValueStreamBase(slot, buffer_, Capacity, Granule, write_function) {}

 private:
  static_assert(Capacity % Granule == 0, "a full buffer must be whole granules");
  unsigned char buffer_[Capacity];  // NOLINT(cppcoreguidelines-pro-type-member-init)
};

}  // namespace zoserialize::impl
