#include "source.h"

#include <zocore/error_exception.h>

#include "detect.h"
#include "errors.h"

namespace zoser {

Source::Source(std::string const& name, Format const* format, Progress::EMode progress)
    : input_(std::make_unique<Input>(name)) {
  format_ = format != nullptr ? format : &detect_input_format(*input_);
  require_readable(*format_);
  input_->show_progress(progress);
  reader_ = make_reader(*format_, input_->stream());
}

std::unique_ptr<Source> Source::open(std::string const& name, Format const* format,
                                     Progress::EMode progress) {
  try {
    return std::make_unique<Source>(name, format, progress);
  } catch (zocore::ErrorException const& e) {
    print_error(name, "", *e.info());
    return nullptr;
  }
}

Source::~Source() {
  reader_.reset();
  input_->finish_progress();
}

std::string Source::place(zocore::ErrorInfo const& failure) {
  if (!reader_ || format_->place == nullptr) return {};
  return format_->place(*reader_, failure);
}

void Source::report(zocore::ErrorInfo const& failure) {
  input_->finish_progress();
  print_error(name(), place(failure), failure);
}

}  // namespace zoser
