#include <ostream>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/formats.h>
#include <support/memory_lists.h>
#include <support/test_streams.h>
#include <support/text_golden.h>
#include <support/xml_golden.h>
#include <zocore/memory_stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>
#include <zoserialize/string_ostream.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>
#include <zoxml/reader.h>

namespace zotest {
namespace {

using zoserialize::Reader;
using zoserialize::Writer;
using WriteBody = std::function<void(Writer&)>;

// A reader together with what it reads, kept alive by the returned pointer. `make` builds the
// reader over the kept bytes; `check` runs when the reader is released.
template <class Make>
std::shared_ptr<Reader> owning(std::string bytes, Make make,
                               std::function<void()> check = nullptr) {
  struct Holder {
    std::string bytes;
    std::unique_ptr<Reader> reader;
    std::function<void()> check;
    ~Holder() {
      reader.reset();
      if (check) check();
    }
  };
  auto holder = std::make_shared<Holder>();
  holder->bytes = std::move(bytes);
  holder->reader = make(holder->bytes);
  holder->check = std::move(check);
  return {holder, holder->reader.get()};
}

Format::WriteFn binary_writer(unsigned buffer) {
  return [buffer](WriteBody const& fn) {
    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    zoserialize::BinaryWriter writer{zocore::InterfacePtr<zocore::IWriteStream>(sink), buffer};
    fn(writer);
    writer.close();
    return sink->take();
  };
}

// R over a source that records its calls (once it has reported its end, it must not be asked
// again), reading ahead `buffer` bytes at a time.
template <class R>
Format::ReadFn stream_reader(unsigned buffer, bool known_size = true) {
  return [=](std::string bytes) {
    auto const source = zocore::make_ref_counted<ByteSource>(std::move(bytes));
    if (!known_size) source->unknown_size();
    return owning(
        "",
        [&](std::string const&) {
          return std::make_unique<R>(zocore::InterfacePtr<zocore::IReadStream>(source), buffer);
        },
        [source] { EXPECT_EQ(source->calls_after_end(), 0u) << "source asked after its end"; });
  };
}

Format binary_format() {
  Format f = make_format<zoserialize::BinaryWriter, zoserialize::BinaryReader>(
      "Binary", binary_writer(zoserialize::BinaryWriter::kDefaultBufferSize),
      [](std::string bytes) {
        return owning(std::move(bytes), [](std::string const& kept) {
          return std::make_unique<zoserialize::BinaryReader>(
              zocore::InterfacePtr<zocore::IReadStream>(
                  zocore::make_ref_counted<zocore::MemoryReadStream>(kept)),
              4096);
        });
      },
      true);
  f.column = &binary_column();
  for (unsigned buffer : {0u, 1u, 7u, 16u, 4096u})
    f.writers.emplace_back("Buffer" + std::to_string(buffer), binary_writer(buffer));
  for (unsigned buffer : {0u, 1u, 7u, 4096u}) {
    f.readers.emplace_back("Buffer" + std::to_string(buffer),
                           stream_reader<zoserialize::BinaryReader>(buffer));
    f.readers.emplace_back("Buffer" + std::to_string(buffer) + "Unknown",
                           stream_reader<zoserialize::BinaryReader>(buffer, false));
  }
  f.read_with_seam = [](std::string bytes, std::size_t seam) {
    return stream_reader<zoserialize::BinaryReader>(seam == 0 ? 1 : static_cast<unsigned>(seam))(
        std::move(bytes));
  };
  return f;
}

// The writer starts on a list of `chunks`-byte chunks (0: pooled), behind `prefix`, in a list
// the caller still holds when `kept`: that list must not change.
Format::WriteFn memory_writer(int chunks, std::string prefix, bool kept) {
  return [=](WriteBody const& fn) {
    zoserialize::MemoryListPtr list = chunks < 0    ? nullptr
                                      : chunks == 0 ? zoserialize::MemoryList::create()
                                                    : tiny_chunk_list(chunks);
    if (list) list_of(prefix, list);
    zoserialize::MemoryWriter writer(kept ? list : std::move(list));
    fn(writer);
    writer.close();
    std::string const bytes = bytes_of(*writer.memory_list());
    EXPECT_TRUE(writer.memory_list()->validate_size() && bytes.starts_with(prefix));
    EXPECT_TRUE(!kept || bytes_of(*list) == prefix) << "the writer changed a shared list";
    return bytes.substr(prefix.size());
  };
}

Format memory_format() {
  Format f = make_format<zoserialize::MemoryWriter, zoserialize::MemoryReader>(
      "Memory",
      [](WriteBody const& fn) {
        zoserialize::MemoryWriter writer;
        fn(writer);
        return bytes_of(*writer.close_and_detach_memory_list());
      },
      [](std::string bytes) {
        return owning(std::move(bytes), [](std::string const& kept) {
          return std::make_unique<zoserialize::MemoryReader>(list_of(kept));
        });
      },
      true);
  f.column = &binary_column();
  f.writers.emplace_back("NullList", memory_writer(-1, "", false));
  f.writers.emplace_back("Chunks1", memory_writer(1, "", false));
  f.writers.emplace_back("PooledBehindPrefix", memory_writer(0, "\x11\x10", false));
  f.writers.emplace_back("Chunks3Shared", memory_writer(3, "\x11", true));
  for (ListLayout const& layout : list_layouts()) {
    f.readers.emplace_back(layout.name, [make = layout.make](std::string bytes) {
      return owning(std::move(bytes), [&](std::string const& kept) {
        return std::make_unique<zoserialize::MemoryReader>(make(kept));
      });
    });
  }
  f.read_with_seam = [](std::string bytes, std::size_t seam) {
    return owning(std::move(bytes), [seam](std::string const& kept) {
      return std::make_unique<zoserialize::MemoryReader>(list_in_pieces(kept, {seam, kept.size()}));
    });
  };
  return f;
}

// The text archives: the writer over each kind of target, the reader in place and through
// stream sources with read-ahead buffers that cut every token.
Format::WriteFn text_writer(int target) {
  return [target](WriteBody const& fn) {
    std::string out;
    std::ostringstream os;
    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      std::unique_ptr<zoserialize::TextWriter> writer;
      if (target == 0) writer = std::make_unique<zoserialize::TextWriter>(out);
      if (target == 1) writer = std::make_unique<zoserialize::TextWriter>(os);
      if (target == 2) {
        writer = std::make_unique<zoserialize::TextWriter>(
            zocore::InterfacePtr<zocore::IWriteStream>(sink));
      }
      fn(*writer);
      writer->close();
    }
    return target == 0 ? out : target == 1 ? os.str() : sink->take();
  };
}

Format text_format() {
  Format f = make_format<zoserialize::TextWriter, zoserialize::TextReader>(
      "Text", text_writer(0), [](std::string bytes) {
        return owning(std::move(bytes), [](std::string const& kept) {
          return std::make_unique<zoserialize::TextReader>(&kept);
        });
      });
  f.column = &text_column();
  f.prefix_is_incomplete = false;
  f.writers.emplace_back("Ostream", text_writer(1));
  f.writers.emplace_back("WriteStream", text_writer(2));
  f.readers.emplace_back("Chars", [](std::string bytes) {
    return owning(std::move(bytes), [](std::string const& kept) {
      return std::make_unique<zoserialize::TextReader>(kept.data(),
                                                       static_cast<unsigned>(kept.size()));
    });
  });
  for (unsigned buffer : {1u, 3u, 4096u}) {
    f.readers.emplace_back("Stream" + std::to_string(buffer),
                           stream_reader<zoserialize::TextReader>(buffer));
  }
  f.readers.emplace_back("Istream7", [](std::string bytes) {
    auto in = std::make_shared<std::istringstream>(std::move(bytes));
    return owning(
        "", [&](std::string const&) { return std::make_unique<zoserialize::TextReader>(*in, 7); },
        [in] {});
  });
  f.read_with_seam = [](std::string bytes, std::size_t seam) {
    return stream_reader<zoserialize::TextReader>(seam == 0 ? 1 : static_cast<unsigned>(seam))(
        std::move(bytes));
  };
  return f;
}

// The XML archives: the writer with both layout strings empty over an ostringstream, one that
// throws, and the standard-stream adapter over a core stream; the reader through each of its
// constructors, with parser blocks that cut every token.
Format::WriteFn xml_writer(int target) {
  return [target](WriteBody const& fn) {
    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    std::ostringstream os;
    if (target == 1) os.exceptions(std::ios::badbit | std::ios::failbit);
    {
      zoserialize::StringOStream adapter{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
      zoserialize::XmlWriter writer(target == 2 ? static_cast<std::ostream&>(adapter) : os, "", "");
      fn(writer);
      writer.close();
    }
    return target == 2 ? sink->take() : os.str();
  };
}

Format xml_format() {
  Format f = make_format<zoserialize::XmlWriter, zoserialize::XmlReader>(
      "Xml", xml_writer(0), [](std::string bytes) {
        return owning(std::move(bytes), [](std::string const& kept) {
          return std::make_unique<zoserialize::XmlReader>(zocore::InterfacePtr<zocore::IReadStream>(
              zocore::make_ref_counted<zocore::MemoryReadStream>(kept)));
        });
      });
  f.column = &xml_column();
  f.writers.emplace_back("OstreamThrowing", xml_writer(1));
  f.writers.emplace_back("StringOStream", xml_writer(2));
  for (unsigned block : {1u, 7u, 4096u}) {
    f.readers.emplace_back("Block" + std::to_string(block),
                           stream_reader<zoserialize::XmlReader>(block));
  }
  f.readers.emplace_back("Istream", [](std::string bytes) {
    auto in = std::make_shared<std::istringstream>(std::move(bytes));
    return owning(
        "", [&](std::string const&) { return std::make_unique<zoserialize::XmlReader>(*in, 5); },
        [in] {});
  });
  // The constructor over a parser of the caller's (the library's internal parser, linked here).
  f.readers.emplace_back("Parser", [](std::string bytes) {
    auto in = std::make_shared<std::istringstream>(std::move(bytes));
    auto parser = std::make_shared<zoxml::XmlReader>(*in, "", 3);
    return owning(
        "", [&](std::string const&) { return std::make_unique<zoserialize::XmlReader>(*parser); },
        [in, parser] {});
  });
  f.read_with_seam = [](std::string bytes, std::size_t seam) {
    return stream_reader<zoserialize::XmlReader>(seam == 0 ? 1 : static_cast<unsigned>(seam))(
        std::move(bytes));
  };
  return f;
}

}  // namespace

std::vector<Format> const& formats() {
  static std::vector<Format> const all = {binary_format(), memory_format(), text_format(),
                                          xml_format()};
  return all;
}

void PrintTo(Format const& format, std::ostream* os) {
  *os << format.name;
}

}  // namespace zotest
