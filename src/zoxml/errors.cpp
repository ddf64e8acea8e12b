#include <string>

#include <zocore/error_exception.h>
#include <zoxml/errors.h>

namespace zoxml {

namespace error {

// Constant-initialised like the library's other codes: usable from any static initialiser.
constinit zocore::ErrorCode const zoxml("error.zoxml", true);
constinit zocore::ErrorCode const zoxml_reader("error.zoxml.reader", true);
constinit zocore::ErrorCode const zoxml_reader_unexpected("error.zoxml.reader.unexpected", true);
constinit zocore::ErrorCode const zoxml_reader_unexpected_element(
    "error.zoxml.reader.unexpected.element", true);
constinit zocore::ErrorCode const zoxml_reader_unexpected_token(
    "error.zoxml.reader.unexpected.token", true);
constinit zocore::ErrorCode const zoxml_reader_unexpected_size("error.zoxml.reader.unexpected.size",
                                                               true);
constinit zocore::ErrorCode const zoxml_tokenizer("error.zoxml.tokenizer", true);
constinit zocore::ErrorCode const zoxml_tokenizer_stream("error.zoxml.tokenizer.stream", true);
constinit zocore::ErrorCode const zoxml_tokenizer_syntaxError("error.zoxml.tokenizer.syntaxError",
                                                              true);

}  // namespace error

void throw_located(zocore::ErrorCode const& code, char const* message, zocore::ErrorParams params,
                   Location const& at, std::string_view uri, char const* function,
                   char const* module, unsigned line,
                   zocore::RefCountPtr<zocore::ErrorInfo const> nested) {
  std::string text = "[line {@line}, pos {@linePos}";
  if (!uri.empty()) text += ", uri <{@uri}>";
  text += "]: ";
  text += message;
  params.set("uri", uri);
  params.set("line", static_cast<unsigned long long>(at.line));
  params.set("linePos", static_cast<unsigned long long>(at.pos - at.line_start) + 1);
  params.set("sourcePos", static_cast<unsigned long long>(at.pos));
  zocore::ErrorException::throw_error(zocore::ErrorInfo::create(
      code, zocore::SourceString(std::string_view(text)), std::move(params),
      zocore::SourceLocation(function, module, line), std::move(nested)));
}

}  // namespace zoxml
