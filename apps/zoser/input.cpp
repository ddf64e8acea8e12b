#include "input.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <zocore/atomic_ref_count.h>
#include <zocore/file_stream.h>
#include <zocore/ref_counted.h>

namespace zoser {

// The peeked bytes first, then the source; counts what it delivers and skips. Once the source
// has reported its end it is not asked again (a terminal would wait for more).
class Input::ReplayStream final : public zocore::RefCounted<zocore::AtomicRefCount>,
                                  public zocore::IReadStream {
 public:
  explicit ReplayStream(zocore::InterfacePtr<zocore::IReadStream> source)
      : source_(std::move(source)) {}

  // Reads the first `size` bytes of the source into the replay buffer; true when the source
  // ended within them.
  bool fill_replay(std::size_t size) {
    replay_.resize(size);
    std::size_t got = 0;
    while (got < size && !ended_) {
      auto const want = static_cast<unsigned>(std::min<std::size_t>(size - got, 1u << 30));
      unsigned const n = source_->read(replay_.data() + got, want);
      got += n;
      if (n < want) ended_ = true;
    }
    replay_.resize(got);
    return ended_;
  }
  std::string_view replay() const noexcept { return replay_; }

  unsigned read(void* buffer, unsigned size) override { return transfer(buffer, size); }
  unsigned skip(unsigned size) override { return transfer(nullptr, size); }
  unsigned bytes_remaining() const override {
    std::uint64_t const buffered = replay_.size() - at_;
    if (ended_) return static_cast<unsigned>(buffered);
    unsigned const rest = source_->bytes_remaining();
    if (rest == kUnknownSize || buffered + rest >= kUnknownSize) return kUnknownSize;
    return static_cast<unsigned>(buffered + rest);
  }

  std::uint64_t delivered() const noexcept { return delivered_; }
  void watch(Progress* progress) noexcept { progress_ = progress; }

 private:
  unsigned transfer(void* buffer, unsigned size) {
    unsigned done = 0;
    if (at_ < replay_.size()) {
      auto const n = static_cast<unsigned>(std::min<std::size_t>(size, replay_.size() - at_));
      if (buffer != nullptr) std::memcpy(buffer, replay_.data() + at_, n);
      at_ += n;
      done = n;
      if (at_ == replay_.size()) std::string().swap(replay_), at_ = 0;
    }
    if (done < size && !ended_) {
      unsigned const want = size - done;
      unsigned const n = buffer != nullptr ? source_->read(static_cast<char*>(buffer) + done, want)
                                           : source_->skip(want);
      if (n < want) ended_ = true;
      done += n;
    }
    delivered_ += done;
    if (progress_ != nullptr) progress_->update(delivered_);
    return done;
  }

  zocore::InterfacePtr<zocore::IReadStream> source_;
  std::string replay_;
  std::size_t at_ = 0;
  bool ended_ = false;
  std::uint64_t delivered_ = 0;
  Progress* progress_ = nullptr;
};

Input::Input(std::string name) : name_(std::move(name)) {
  zocore::InterfacePtr<zocore::IReadStream> source;
  if (is_stdin()) {
    source = zocore::make_ref_counted<zocore::FileReadStream>(STDIN_FILENO, false);
  } else {
    source = zocore::make_ref_counted<zocore::FileReadStream>(name_.c_str());
    struct stat st {};
    if (::stat(name_.c_str(), &st) == 0 && S_ISREG(st.st_mode))
      size_ = static_cast<std::uint64_t>(st.st_size);
  }
  stream_ = zocore::make_ref_counted<ReplayStream>(std::move(source));
}

Input::~Input() {
  finish_progress();
}

std::string_view Input::peek() {
  if (!peeked_) {
    peeked_ = true;
    peek_whole_ = stream_->fill_replay(kPeekSize);
  }
  return stream_->replay();
}

zocore::InterfacePtr<zocore::IReadStream> Input::stream() {
  return zocore::InterfacePtr<zocore::IReadStream>(stream_);
}

std::uint64_t Input::bytes_read() const noexcept {
  return stream_->delivered();
}

void Input::show_progress(Progress::EMode mode) {
  if (mode == Progress::EMode::kOff) return;
  progress_ = std::make_unique<Progress>(name_, size_, mode);
  stream_->watch(progress_.get());
}

void Input::finish_progress() noexcept {
  if (!progress_) return;
  stream_->watch(nullptr);
  progress_->finish(stream_->delivered());
  progress_.reset();
}

}  // namespace zoser
