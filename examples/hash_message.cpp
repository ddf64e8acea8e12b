// Two parties prove they hold the same data with one digest, whatever format carried it.
//
// The sender writes a message in binary through a HashingWriterAdapter and keeps the digest.
// The receiver reads the bytes back through a HashingReaderAdapter, here copying the message
// into a TraceWriter to show it, and gets the same digest. The same message kept in the memory
// format hashes the same again: the digest is of the elements, not of the bytes of a format.
#include <iostream>
#include <string>

#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zodigest/digest_sink.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/hashing_reader_adapter.h>
#include <zoserialize/hashing_writer_adapter.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>
#include <zoserialize/trace_writer.h>

namespace {

using zocore::InterfacePtr;
using zocore::make_ref_counted;
using zodigest::DigestSink;
using namespace zoserialize;

// One line of an order: a marker of item, quantity and price.
void write_line(Writer& w, char const* item, int quantity, double price) {
  WriteMarker line(w);
  w << item << quantity << price;
}

// An order: a marker with its number, customer, lines (a sequence) and a scanned receipt.
void write_order(Writer& w) {
  w.write_marker_start();
  w << 10042u << "Ada Lovelace" << AbsoluteTime(1'700'000'000'000'000'000);
  w.write_sequence_start(2);
  write_line(w, "tea", 2, 3.5);
  w.write_sequence_separator();
  write_line(w, "scones", 6, 1.25);
  w.write_sequence_end();
  unsigned char const receipt[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  w.write_binary(receipt, sizeof receipt);
  w.write_marker_end();
}

// Reads a whole archive through the hashing adapter, showing it as a trace on the way.
std::string digest_of_reading(Reader& reader) {
  auto digest = make_ref_counted<DigestSink>();
  HashingReaderAdapter hashing(reader, digest);
  TraceWriter trace(std::cout, "    ", "  ");
  hashing.read_copy_all(trace);
  hashing.close();
  return digest->hex_digest();
}

}  // namespace

int main() {
  try {
    // Sender: the message in binary, hashed as it is written.
    auto bytes = make_ref_counted<zocore::StringWriteStream>();
    auto sent = make_ref_counted<DigestSink>();
    {
      BinaryWriter writer{InterfacePtr<zocore::IWriteStream>(bytes)};
      HashingWriterAdapter hashing(writer, sent);
      write_order(hashing);
      hashing.close();
      writer.close();
    }
    std::cout << "written in binary (" << bytes->str().size() << " bytes), " << sent->algorithm()
              << ": " << sent->hex_digest() << "\n";

    // Receiver: the same bytes read back.
    std::cout << "read back from binary:\n";
    BinaryReader binary{InterfacePtr<zocore::IReadStream>(
        make_ref_counted<zocore::MemoryReadStream>(bytes->str()))};
    std::string const received = digest_of_reading(binary);
    std::cout << "  digest: " << received << "\n";

    // The same message in the memory format: other bytes, the same digest.
    MemoryWriter memory_writer;
    write_order(memory_writer);
    MemoryReader memory{memory_writer.close_and_detach_memory_list()};
    std::cout << "read back from memory:\n";
    std::string const from_memory = digest_of_reading(memory);
    std::cout << "  digest: " << from_memory << "\n";

    bool const same = received == sent->hex_digest() && from_memory == received;
    std::cout << (same ? "all digests agree\n" : "DIGESTS DIFFER\n");
    return same ? 0 : 1;
  } catch (zocore::ErrorException const& e) {
    std::cerr << "hash_message: " << e.code() << ": " << e.what() << "\n";
    return 1;
  }
}
