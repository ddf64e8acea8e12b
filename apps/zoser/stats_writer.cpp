#include "stats_writer.h"

#include <algorithm>

#include <zocore/ref_count_ptr.h>

namespace zoser {

namespace {

constexpr unsigned kScratchSize = 64 * 1024;

}  // namespace

std::string_view Stats::kind_name(EKind kind) noexcept {
  static constexpr std::string_view kNames[] = {
      "null",          "boolean",       "signed integer", "unsigned integer", "double",   "string",
      "absolute time", "relative time", "uuid",           "binary",           "sequence", "marker"};
  return kind < kKindCount ? kNames[kind] : std::string_view("?");
}

// The stream of write_string_stream() / write_binary(): counts what is written to it until the
// value ends. A buffer of one byte makes every write go through uncopied.
class StatsWriter::CountingStream final : public zoserialize::impl::BufferedValueStream<1, 1> {
 public:
  CountingStream(zoserialize::impl::ValueStreamSlot& slot, StatsWriter& writer,
                 Stats::EKind kind) noexcept
      : BufferedValueStream(slot, "zoser::StatsWriter::CountingStream::write()"),
        writer_(writer),
        kind_(kind) {}

 protected:
  void emit_block(unsigned char const*, unsigned size) override { bytes_ += size; }
  void emit_final(unsigned char const*, unsigned size) override {
    writer_.payload(kind_, bytes_ + size);
  }

 private:
  StatsWriter& writer_;
  Stats::EKind kind_;
  std::uint64_t bytes_ = 0;
};

StatsWriter::StatsWriter() = default;
StatsWriter::~StatsWriter() = default;

void StatsWriter::payload(Stats::EKind kind, std::uint64_t size) noexcept {
  count(kind);
  if (kind == Stats::kString) {
    stats_.string_bytes += size;
    stats_.largest_string = std::max(stats_.largest_string, size);
  } else {
    stats_.binary_bytes += size;
    stats_.largest_binary = std::max(stats_.largest_binary, size);
  }
}

std::uint64_t StatsWriter::drain(zocore::IReadStream& source) {
  if (!scratch_) scratch_ = std::make_unique<unsigned char[]>(kScratchSize);
  std::uint64_t total = 0;
  for (;;) {
    unsigned const n = source.read(scratch_.get(), kScratchSize);
    total += n;
    if (n < kScratchSize) return total;
  }
}

void StatsWriter::open_scope(Stats::EKind kind) noexcept {
  count(kind);
  stats_.max_depth = std::max(stats_.max_depth, ++depth_);
}

void StatsWriter::close() {
  end_stream();
}
void StatsWriter::flush() {
  end_stream();
}

void StatsWriter::write_null() {
  end_stream();
  count(Stats::kNull);
}
void StatsWriter::write_bool(bool) {
  end_stream();
  count(Stats::kBoolean);
}
void StatsWriter::write_int_big_endian(void const*, unsigned) {
  end_stream();
  count(Stats::kSignedInteger);
}
void StatsWriter::write_uint_big_endian(void const*, unsigned) {
  end_stream();
  count(Stats::kUnsignedInteger);
}
void StatsWriter::write_double(double) {
  end_stream();
  count(Stats::kDouble);
}
void StatsWriter::write_string(char const*, unsigned size) {
  end_stream();
  payload(Stats::kString, size);
}
zocore::InterfacePtr<zocore::IWriteStream> StatsWriter::write_string_stream() {
  end_stream();
  return slot_.open(zocore::make_ref_counted<CountingStream>(slot_, *this, Stats::kString));
}
void StatsWriter::write_string_stream(zocore::IReadStream& source) {
  end_stream();
  payload(Stats::kString, drain(source));
}
void StatsWriter::write_absolute_time(zocore::AbsoluteTime const&) {
  end_stream();
  count(Stats::kAbsoluteTime);
}
void StatsWriter::write_relative_time(zocore::RelativeTime const&) {
  end_stream();
  count(Stats::kRelativeTime);
}
void StatsWriter::write_uuid(zocore::Uuid const&) {
  end_stream();
  count(Stats::kUuid);
}
zocore::InterfacePtr<zocore::IWriteStream> StatsWriter::write_binary() {
  end_stream();
  return slot_.open(zocore::make_ref_counted<CountingStream>(slot_, *this, Stats::kBinary));
}
void StatsWriter::write_binary(zocore::IReadStream& source) {
  end_stream();
  payload(Stats::kBinary, drain(source));
}
void StatsWriter::write_binary(void const*, unsigned size) {
  end_stream();
  payload(Stats::kBinary, size);
}
void StatsWriter::write_sequence_start(unsigned) {
  end_stream();
  open_scope(Stats::kSequence);
}
void StatsWriter::write_sequence_start() {
  write_sequence_start(0);
}
void StatsWriter::write_sequence_separator() {
  end_stream();
}
void StatsWriter::write_sequence_end() {
  end_stream();
  if (depth_ != 0) --depth_;
}
void StatsWriter::write_marker_start() {
  end_stream();
  open_scope(Stats::kMarker);
}
void StatsWriter::write_marker_end() {
  end_stream();
  if (depth_ != 0) --depth_;
}

}  // namespace zoser
