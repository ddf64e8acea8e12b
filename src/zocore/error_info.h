// Immutable, reference-counted error record.
#pragma once

#include <exception>
#include <string>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_code.h>
#include <zocore/error_params.h>
#include <zocore/export.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/source_location.h>
#include <zocore/source_string.h>

namespace zocore {

// One error: its code, a message template in which "{@name}" stands for the parameter `name`,
// the parameters, where it was raised, an optional cause (nested record) and an optional context
// text (free-form detail that travels with the record). Records are immutable once created and
// shared through RefCountPtr<ErrorInfo const>, so they can be rethrown and passed between
// threads. The rendered message is computed once, at creation.
class ZOCORE_API ErrorInfo : public RefCounted<AtomicRefCount> {
 public:
  static RefCountPtr<ErrorInfo const> create(ErrorCode code, SourceString message,
                                             ErrorParams params, SourceLocation location,
                                             RefCountPtr<ErrorInfo const> nested = {},
                                             SourceString context = {});

  // The record of `e`: an ErrorException's own record, otherwise a new record with code
  // error::zocore_exception whose message is e.what() and whose location is `location`.
  static RefCountPtr<ErrorInfo const> from_exception(std::exception const& e,
                                                     SourceLocation const& location);

  // A record for the C errno value `err` (code error::zocore_errno, parameters "errno" and
  // "description").
  static RefCountPtr<ErrorInfo const> from_errno(int err, SourceLocation const& location);

  ErrorCode const& code() const noexcept { return code_; }
  SourceString const& message() const noexcept { return message_; }
  ErrorParams const& params() const noexcept { return params_; }
  SourceLocation const& location() const noexcept { return location_; }
  RefCountPtr<ErrorInfo const> const& nested() const noexcept { return nested_; }
  SourceString const& context() const noexcept { return context_; }

  // The message with every "{@name}" whose parameter exists replaced by its value; placeholders
  // without a parameter stay as they are.
  std::string const& rendered() const noexcept { return rendered_; }

  // The errno carried by this record or the nearest errno record in its chain of causes; 0 when
  // there is none.
  int nested_errno() const noexcept;

  // Substitutes the "{@name}" placeholders of `message` from `params`.
  static std::string render(std::string_view message, ErrorParams const& params);

 private:
  ErrorInfo(ErrorCode code, SourceString message, ErrorParams params, SourceLocation location,
            RefCountPtr<ErrorInfo const> nested, SourceString context);

  ErrorCode code_;
  SourceString message_;
  ErrorParams params_;
  SourceLocation location_;
  RefCountPtr<ErrorInfo const> nested_;
  SourceString context_;
  std::string rendered_;
};

}  // namespace zocore
