#include <cstdlib>
#include <cstring>
#include <string>

#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/error_info.h>

namespace zocore {

ErrorInfo::ErrorInfo(ErrorCode code, SourceString message, ErrorParams params,
                     SourceLocation location, RefCountPtr<ErrorInfo const> nested,
                     SourceString context)
    : code_(std::move(code)),
      message_(std::move(message)),
      params_(std::move(params)),
      location_(std::move(location)),
      nested_(std::move(nested)),
      context_(std::move(context)),
      rendered_(render(message_.view(), params_)) {}

RefCountPtr<ErrorInfo const> ErrorInfo::create(ErrorCode code, SourceString message,
                                               ErrorParams params, SourceLocation location,
                                               RefCountPtr<ErrorInfo const> nested,
                                               SourceString context) {
  return RefCountPtr<ErrorInfo const>(new ErrorInfo(std::move(code), std::move(message),
                                                    std::move(params), std::move(location),
                                                    std::move(nested), std::move(context)));
}

RefCountPtr<ErrorInfo const> ErrorInfo::from_exception(std::exception const& e,
                                                       SourceLocation const& location) {
  if (auto const* ex = dynamic_cast<ErrorException const*>(&e); ex && ex->info()) return ex->info();
  return create(error::zocore_exception, SourceString(std::string_view(e.what())), {}, location);
}

RefCountPtr<ErrorInfo const> ErrorInfo::from_errno(int err, SourceLocation const& location) {
  ErrorParams params;
  params.set("errno", err);
  char buf[256];
  // The GNU strerror_r may return a static string instead of filling buf.
  char const* description = strerror_r(err, buf, sizeof buf);
  params.set("description", std::string_view(description));
  return create(error::zocore_errno, SourceString("System error {@errno}: {@description}", true),
                std::move(params), location);
}

int ErrorInfo::nested_errno() const noexcept {
  for (ErrorInfo const* info = this; info; info = info->nested_.get()) {
    if (info->code_ == error::zocore_errno) {
      if (std::string const* value = info->params_.find("errno")) return std::atoi(value->c_str());
    }
  }
  return 0;
}

std::string ErrorInfo::render(std::string_view message, ErrorParams const& params) {
  std::string out;
  out.reserve(message.size() + 16);
  std::size_t pos = 0;
  while (pos < message.size()) {
    std::size_t open = message.find("{@", pos);
    if (open == std::string_view::npos) break;
    std::size_t const close = message.find('}', open + 2);
    if (close == std::string_view::npos) break;
    // An unterminated "{@" before a complete placeholder is literal text: the placeholder is
    // the last "{@" before the brace.
    open = message.rfind("{@", close);
    out.append(message, pos, open - pos);
    std::string const* value = params.find(message.substr(open + 2, close - open - 2));
    if (value) {
      out += *value;
    } else {
      out.append(message, open, close + 1 - open);
    }
    pos = close + 1;
  }
  out.append(message, pos);
  return out;
}

}  // namespace zocore
