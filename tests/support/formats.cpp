#include <ostream>
#include <utility>

#include <support/formats.h>
#include <support/memory_lists.h>
#include <zocore/memory_stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>

namespace zotest {
namespace {

using zoserialize::Reader;
using zoserialize::Writer;

// A reader together with the bytes it reads, kept alive by the returned pointer. `make` builds
// the reader over the kept bytes.
template <class Make>
std::shared_ptr<Reader> owning(std::string bytes, Make make) {
  struct Holder {
    std::string bytes;
    std::unique_ptr<Reader> reader;
  };
  auto holder = std::make_shared<Holder>();
  holder->bytes = std::move(bytes);
  holder->reader = make(holder->bytes);
  return {holder, holder->reader.get()};
}

std::vector<Format> make_formats() {
  std::vector<Format> out;
  out.push_back({"Binary",
                 [](std::function<void(Writer&)> const& fn) {
                   auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
                   zoserialize::BinaryWriter writer{
                       zocore::InterfacePtr<zocore::IWriteStream>(sink)};
                   fn(writer);
                   writer.close();
                   return sink->take();
                 },
                 [](std::string bytes) {
                   return owning(std::move(bytes), [](std::string const& kept) {
                     return std::make_unique<zoserialize::BinaryReader>(
                         zocore::InterfacePtr<zocore::IReadStream>(
                             zocore::make_ref_counted<zocore::MemoryReadStream>(kept)),
                         4096);
                   });
                 }});
  out.push_back({"Memory",
                 [](std::function<void(Writer&)> const& fn) {
                   zoserialize::MemoryWriter writer;
                   fn(writer);
                   return bytes_of(*writer.close_and_detach_memory_list());
                 },
                 [](std::string bytes) {
                   return owning(std::move(bytes), [](std::string const& kept) {
                     return std::make_unique<zoserialize::MemoryReader>(list_of(kept));
                   });
                 }});
  out.push_back({"Text",
                 [](std::function<void(Writer&)> const& fn) {
                   std::string text;
                   zoserialize::TextWriter writer(text);
                   fn(writer);
                   writer.close();
                   return text;
                 },
                 [](std::string bytes) {
                   return owning(std::move(bytes), [](std::string const& kept) {
                     return std::make_unique<zoserialize::TextReader>(&kept);
                   });
                 }});
  return out;
}

}  // namespace

std::vector<Format> const& formats() {
  static std::vector<Format> const all = make_formats();
  return all;
}

void PrintTo(Format const& format, std::ostream* os) {
  *os << format.name;
}

}  // namespace zotest
