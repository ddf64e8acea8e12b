#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include <zocore/atomic_ref_count.h>
#include <zocore/interface_ptr.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>

namespace {

using zocore::InterfacePtr;
using zocore::IReadStream;
using zocore::IWriteStream;
using zocore::RefCountPtr;
using Counted = zocore::RefCounted<zocore::AtomicRefCount>;

// Implements both stream interfaces, with the counted base last so that neither interface
// pointer coincides with the owner's pointer.
class Pipe : public IReadStream, public IWriteStream, public Counted {
 public:
  explicit Pipe(int* destroys) : destroys_(destroys) {}

  unsigned read(void* buffer, unsigned size) override {
    auto const n = static_cast<unsigned>(std::min<std::size_t>(size, data_.size()));
    std::memcpy(buffer, data_.data(), n);
    data_.erase(0, n);
    return n;
  }
  unsigned skip(unsigned size) override {
    auto const n = static_cast<unsigned>(std::min<std::size_t>(size, data_.size()));
    data_.erase(0, n);
    return n;
  }
  unsigned bytes_remaining() const override { return static_cast<unsigned>(data_.size()); }
  void write(void const* data, unsigned size) override {
    data_.append(static_cast<char const*>(data), size);
  }

 protected:
  void destroy() override {
    ++*destroys_;
    Counted::destroy();
  }

 private:
  int* destroys_;
  std::string data_;
};

class ReadOnly : public Counted, public IReadStream {
 public:
  unsigned read(void*, unsigned) override { return 0; }
  unsigned skip(unsigned) override { return 0; }
  unsigned bytes_remaining() const override { return 0; }
};

static_assert(std::is_same_v<InterfacePtr<IReadStream>::owner_type, RefCountPtr<Counted>>);
static_assert(std::is_convertible_v<RefCountPtr<Pipe>, InterfacePtr<IReadStream>>);
static_assert(std::is_convertible_v<RefCountPtr<Pipe>, InterfacePtr<IWriteStream>>);
static_assert(!std::is_constructible_v<InterfacePtr<IWriteStream>, RefCountPtr<ReadOnly>>);

TEST(InterfacePtrTest, EmptyHoldsNothing) {
  InterfacePtr<IReadStream> const empty;
  InterfacePtr<IReadStream> const null(nullptr);
  EXPECT_FALSE(empty);
  EXPECT_FALSE(null);
  EXPECT_EQ(empty.get(), nullptr);
  EXPECT_FALSE(empty.owner());
}

TEST(InterfacePtrTest, BuiltFromARefCountPtrSharesTheObject) {
  int destroys = 0;
  RefCountPtr<Pipe> pipe(new Pipe(&destroys));
  InterfacePtr<IReadStream> const reader(pipe);
  InterfacePtr<IWriteStream> const writer(pipe);
  EXPECT_EQ(reader.get(), static_cast<IReadStream*>(pipe.get()));
  EXPECT_EQ(writer.get(), static_cast<IWriteStream*>(pipe.get()));
  EXPECT_EQ(reader.owner().get(), static_cast<Counted*>(pipe.get()));
  EXPECT_EQ(pipe->ref_count(), 3u);

  // The adjusted interface pointers reach the same object.
  writer->write("abc", 3);
  char buffer[4] = {};
  EXPECT_EQ(reader->read(buffer, 4), 3u);
  EXPECT_STREQ(buffer, "abc");
}

TEST(InterfacePtrTest, OwnerKeepsTheObjectAliveAfterTheSourceIsGone) {
  int destroys = 0;
  InterfacePtr<IWriteStream> stream;
  {
    RefCountPtr<Pipe> const pipe(new Pipe(&destroys));
    stream = pipe;
  }
  EXPECT_EQ(destroys, 0);
  EXPECT_EQ(stream.owner()->ref_count(), 1u);
  stream->write("x", 1);
  stream.reset();
  EXPECT_FALSE(stream);
  EXPECT_EQ(destroys, 1);
}

TEST(InterfacePtrTest, CopyMoveAndSwap) {
  int destroys = 0;
  RefCountPtr<Pipe> pipe(new Pipe(&destroys));
  Pipe* const raw = pipe.get();
  InterfacePtr<IReadStream> a(pipe);
  pipe.reset();

  InterfacePtr<IReadStream> b(a);
  EXPECT_EQ(raw->ref_count(), 2u);
  InterfacePtr<IReadStream> c(std::move(b));
  // Moved-from is empty by contract.
  // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_FALSE(b);
  EXPECT_FALSE(b.owner());
  // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_EQ(raw->ref_count(), 2u);

  InterfacePtr<IReadStream> d;
  d = c;
  EXPECT_EQ(raw->ref_count(), 3u);
  d = std::move(c);
  EXPECT_FALSE(c);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(raw->ref_count(), 2u);

  InterfacePtr<IReadStream>& alias = d;
  d = std::move(alias);
  EXPECT_TRUE(d);
  EXPECT_EQ(raw->ref_count(), 2u);

  InterfacePtr<IReadStream> e;
  e.swap(d);
  EXPECT_FALSE(d);
  EXPECT_EQ(e.get(), static_cast<IReadStream*>(raw));

  a.reset();
  EXPECT_EQ(destroys, 0);
  e = nullptr;
  EXPECT_EQ(destroys, 1);
}

TEST(InterfacePtrTest, ExplicitInterfaceAndOwner) {
  int destroys = 0;
  RefCountPtr<Pipe> const pipe(new Pipe(&destroys));
  {
    InterfacePtr<IReadStream> const p(pipe.get(), pipe);
    EXPECT_EQ(pipe->ref_count(), 2u);
    EXPECT_EQ(p.get(), static_cast<IReadStream*>(pipe.get()));
  }
  EXPECT_EQ(pipe->ref_count(), 1u);
}

TEST(InterfacePtrTest, CountedBaseFirstConvertsToo) {
  RefCountPtr<ReadOnly> const impl(new ReadOnly);
  InterfacePtr<IReadStream> const p(impl);
  EXPECT_EQ(p.get(), static_cast<IReadStream*>(impl.get()));
  EXPECT_EQ(p->bytes_remaining(), 0u);
  EXPECT_EQ(impl->ref_count(), 2u);
}

}  // namespace
