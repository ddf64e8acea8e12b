#include <cstring>
#include <utility>

#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/value_stream_base.h>

namespace zoserialize::impl {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/impl/value_stream_base.cpp $";

}  // namespace

zocore::InterfacePtr<zocore::IWriteStream> ValueStreamSlot::open(
    zocore::RefCountPtr<ValueStreamBase> stream) {
  stream_ = std::move(stream);
  return zocore::InterfacePtr<zocore::IWriteStream>(stream_);
}

void ValueStreamSlot::finish() {
  zocore::RefCountPtr<ValueStreamBase> const stream = std::move(stream_);
  if (stream) stream->finish();
}

void ValueStreamSlot::abandon() noexcept {
  zocore::RefCountPtr<ValueStreamBase> const stream = std::move(stream_);
  if (stream) stream->slot_ = nullptr;
}

void ValueStreamBase::write(void const* data, unsigned size) {
  if (slot_ == nullptr) [[unlikely]]
    throw_finished();
  auto const* p = static_cast<unsigned char const*>(data);
  while (size != 0) {
    if (filled_ == 0 && size >= capacity_) {
      // Straight through, without a copy; the tail that is not a whole granule is buffered.
      unsigned const direct = size - size % granule_;
      emit_block(p, direct);
      p += direct;
      size -= direct;
      continue;
    }
    unsigned const room = capacity_ - filled_;
    unsigned const n = size < room ? size : room;
    std::memcpy(buffer_ + filled_, p, n);
    filled_ += n;
    p += n;
    size -= n;
    if (filled_ == capacity_) {
      // Emptied first: if the writer fails, the block is not handed over twice.
      filled_ = 0;
      emit_block(buffer_, capacity_);
    }
  }
}

void ValueStreamBase::close() {
  if (slot_ != nullptr) slot_->finish();
}

void ValueStreamBase::finish() {
  slot_ = nullptr;
  unsigned const rest = std::exchange(filled_, 0);
  emit_final(buffer_, rest);
}

void ValueStreamBase::throw_finished() const {
  zocore::throw_error(error::zoserialize_writer_state,
                      "Binary stream writer object has already been closed",
                      zocore::SourceLocation(write_function_, kModuleId, __LINE__));
}

}  // namespace zoserialize::impl
