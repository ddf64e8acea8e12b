// Round-trips a few values through the installed library: the smallest useful program.
#include <iostream>
#include <string>

#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zodigest/digest_sink.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/hashing_reader_adapter.h>
#include <zoserialize/marshal_uri.h>

int main() {
  try {
    auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      zoserialize::BinaryWriter writer{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
      writer << 42 << std::string("hello") << 2.5 << zouri::AbsoluteUri("https://example.org/a");
      writer.close();
    }
    auto source = zocore::make_ref_counted<zocore::MemoryReadStream>(sink->str());
    zoserialize::BinaryReader binary{zocore::InterfacePtr<zocore::IReadStream>(source)};
    // Read through a hashing adapter into a digest: both libraries are found and link.
    auto digest = zocore::make_ref_counted<zodigest::DigestSink>();
    zoserialize::HashingReaderAdapter reader(binary, digest);
    int number = 0;
    std::string text;
    double value = 0;
    zouri::AbsoluteUri uri;
    reader >> number >> text >> value >> uri;
    bool const eof = reader.is_eof();
    reader.close();
    bool const ok = number == 42 && text == "hello" && value == 2.5 &&
                    uri.text() == "https://example.org/a" && eof && digest->digest_size() == 32;
    std::cout << (ok ? "consumer: ok" : "consumer: MISMATCH") << " (" << sink->str().size()
              << " bytes)\n";
    return ok ? 0 : 1;
  } catch (zocore::ErrorException const& e) {
    std::cerr << "consumer: " << e.code() << ": " << e.what() << "\n";
    return 1;
  }
}
