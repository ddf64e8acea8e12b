#include <ostream>

#include <zoserialize/impl/text_targets.h>

namespace zoserialize::impl {

void TextTargetImplOstreamRef::put(char c) {
  out_.put(c);
}

void TextTargetImplOstreamRef::write(char const* data, unsigned length) {
  out_.write(data, static_cast<std::streamsize>(length));
}

void LineWidthAdapter::line_break() {
  if (crlf_) {
    target_->write("\r\n", 2);
  } else {
    target_->put('\n');
  }
}

void LineWidthAdapter::put_last(char c) {
  if (c != ' ') {
    target_->put(c);
    line_break();
    column_ = 0;
    return;
  }
  target_->put('~');
  line_break();
  target_->write("20", 2);
  column_ = 2;
}

void LineWidthAdapter::put(char c) {
  if (column_ == 0 && c == ' ') {
    // The line is at least 4 wide, so the escape never reaches its last column.
    target_->write("~20", 3);
    column_ = 3;
  } else if (column_ == last_column_) {
    put_last(c);
  } else {
    target_->put(c);
    ++column_;
  }
}

void LineWidthAdapter::write(char const* data, unsigned length) {
  while (length != 0) {
    if (column_ == 0 && *data == ' ') {
      target_->write("~20", 3);
      column_ = 3;
      ++data;
      --length;
      continue;
    }
    unsigned const room = last_column_ - column_;
    if (length <= room) {
      target_->write(data, length);
      column_ += length;
      return;
    }
    if (room != 0) target_->write(data, room);
    put_last(data[room]);
    data += room + 1;
    length -= room + 1;
  }
}

}  // namespace zoserialize::impl
