// A Writer that reads nothing into memory and only counts: the engine of stats and validate.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include <zocore/stream.h>
#include <zoserialize/impl/value_stream_base.h>
#include <zoserialize/writer.h>

namespace zoser {

// What a document holds.
struct Stats {
  // The element kinds counted, in the order stats prints them.
  enum EKind : unsigned {
    kNull,
    kBoolean,
    kSignedInteger,
    kUnsignedInteger,
    kDouble,
    kString,
    kAbsoluteTime,
    kRelativeTime,
    kUuid,
    kBinary,
    kSequence,
    kMarker,
    kKindCount
  };
  static std::string_view kind_name(EKind kind) noexcept;

  std::array<std::uint64_t, kKindCount> counts{};
  std::uint64_t elements = 0;  // sum of counts
  // The most sequences and markers open at once (0: nothing nested).
  std::uint64_t max_depth = 0;
  std::uint64_t largest_string = 0;
  std::uint64_t largest_binary = 0;
  std::uint64_t string_bytes = 0;
  std::uint64_t binary_bytes = 0;
};

// StatsWriter counts the elements given to it by kind, the nesting depth and the sizes of
// strings and binaries; read_copy_all of any reader into it reads every element of the input.
// Payloads that come as streams are read in blocks of 64 KiB into one buffer and dropped, so
// memory use is constant. Scopes are trusted to nest properly (readers check that). One thread
// at a time.
class StatsWriter final : public zoserialize::Writer {
 public:
  using Writer::write_string;

  StatsWriter();
  StatsWriter(StatsWriter const&) = delete;
  StatsWriter& operator=(StatsWriter const&) = delete;
  ~StatsWriter() override;

  Stats const& stats() const noexcept { return stats_; }

  void close() override;
  void flush() override;
  void write_null() override;
  void write_bool(bool value) override;
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  void write_double(double value) override;
  void write_string(char const* data, unsigned size) override;
  zocore::InterfacePtr<zocore::IWriteStream> write_string_stream() override;
  void write_string_stream(zocore::IReadStream& source) override;
  void write_absolute_time(zocore::AbsoluteTime const& value) override;
  void write_relative_time(zocore::RelativeTime const& value) override;
  void write_uuid(zocore::Uuid const& value) override;
  zocore::InterfacePtr<zocore::IWriteStream> write_binary() override;
  void write_binary(zocore::IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override;
  void write_sequence_start(unsigned count_hint) override;
  void write_sequence_start() override;
  void write_sequence_separator() override;
  void write_sequence_end() override;
  void write_marker_start() override;
  void write_marker_end() override;

  class CountingStream;

 private:
  void count(Stats::EKind kind) noexcept {
    ++stats_.counts[kind];
    ++stats_.elements;
  }
  void payload(Stats::EKind kind, std::uint64_t size) noexcept;
  std::uint64_t drain(zocore::IReadStream& source);
  void open_scope(Stats::EKind kind) noexcept;
  void end_stream() { slot_.finish(); }

  Stats stats_;
  std::uint64_t depth_ = 0;
  std::unique_ptr<unsigned char[]> scratch_;
  zoserialize::impl::ValueStreamSlot slot_;
};

}  // namespace zoser
