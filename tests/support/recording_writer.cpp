#include <bit>
#include <cstdint>
#include <cstdio>

#include <support/hex_bytes.h>
#include <support/recording_writer.h>
#include <zocore/throw_error.h>

namespace zotest {

// NOLINTNEXTLINE(cert-err58-cpp): constant-initialised, nothing runs at load
constinit zocore::ErrorCode const recording_writer_error("error.zotest.recording_writer", true);

void RecordingWriter::write_double(double value) {
  char line[32];
  std::snprintf(line, sizeof line, "double %016llX",
                static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(value)));
  record(line);
}

void RecordingWriter::record(char const* name, void const* image, unsigned size) {
  record(name + (' ' + hex(std::string_view(static_cast<char const*>(image), size))));
}

void RecordingWriter::record(std::string line) {
  if (!fail_on_.empty() && line.starts_with(fail_on_)) {
    fail_on_.clear();
    zocore::throw_error(recording_writer_error, "Recording writer: injected failure",
                        {"zotest::RecordingWriter::record()",
                         "$Id: tests/support/recording_writer.cpp $", __LINE__});
  }
  calls_.push_back(std::move(line));
}

}  // namespace zotest
