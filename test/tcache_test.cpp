#include "tcache.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <random>
#include <sstream>

#include "golt_poison.h"
#include "heap.h"
#include "source.h"

// What happens is printed to the standard output, between the messages of the cache: "r65536=100 " is
// a read of the host and its result, "R " one that filled a whole buffer, "s65536 " a seek of the
// host, "z10 " a sleep, which takes no time here, ">100 " the result of a read of the cache and
// "!-1 " that of a seek that failed.
static bool g_sleeps_told = false;

extern "C" int usleep(useconds_t usec)
{
    return g_sleeps_told ? printf("z%u ", usec) : 0;
}

namespace {

// What a caller of the lists gets and gives.
typedef cachebuf_list_t List;
static_assert(std::is_same_v<decltype(&List::search_setup), cachebuf_t *(List::*)(uint64_t)>);
static_assert(std::is_same_v<decltype(&List::release), void (List::*)(cachebuf_t *)>);
static_assert(
    std::is_same_v<decltype(&List::fillCache), int (List::*)(cachebuf_t *, uint64_t, bool)>);
static_assert(std::is_same_v<decltype(&List::minFillBuffers), const int List::*>);
static_assert(std::is_same_v<decltype(&cachebuf_t::INVALID_OFFSET), const uint32_t cachebuf_t::*>);

constexpr int BLOCK = 0x10000;
constexpr int ALL = 30 * BLOCK;
const Bytes file = pattern(ALL, 1);

struct TellingHost : public Source {
    std::function<int()> afterwards = [] { return ALL; };  // the script; no lies
    int end = ALL;
    uint8_t *rest = nullptr;  // where the next byte of the last read would be

    int read(uint8_t *buffer, int room) override
    {
        const int count = Source::read(buffer, room);
        if (count >= 0 && count <= room) rest = buffer + count;
        count == BLOCK ? printf("R ") : printf("r%d=%d ", room, count);
        return count;
    }

    int64_t seek(int64_t offset, int whence) override
    {
        printf("s%lld ", static_cast<long long>(offset));
        return Source::seek(offset, whence);
    }

    int64_t size() const override { return end; }

protected:
    int answer(int room) override
    {
        return script.empty() ? std::min(afterwards(), room) : Source::answer(room);
    }

    void deliver(uint8_t *buffer, int64_t at, int count) override
    {
        std::copy_n(file.data() + at, count, buffer);
    }
};

struct Cache : public ::testing::Test {
    TellingHost host;
    std::unique_ptr<TCache> cache;
    int64_t pos = 0;  // of the reader

    Cache() { g_sleeps_told = true; }
    ~Cache() override { g_sleeps_told = false, g_TCacheEnabled = true; }

    void open(uint64_t declared)
    {
        cache = std::make_unique<TCache>(&host, declared);
        host.Source::seek(0, 0);
        pos = 0;
        host.script.clear();
    }

    // "@5 4": a seek to 5, a read of 4 bytes; "<7": the host's read that comes next gives 7.
    std::string run(const std::string &steps)
    {
        testing::internal::CaptureStdout();
        std::istringstream words(steps);
        for (std::string word; words >> word;) {
            const bool f_read = isdigit(word[0]) != 0;
            const int64_t number = std::stoll(word.substr(f_read ? 0 : 1), nullptr, 0);
            if (word[0] == '<') host.script.push_back(static_cast<int>(number));
            if (word[0] == '@' && cache->seek(pos = number) != 0) printf("!-1 ");
            if (!f_read) continue;
            Bytes out(static_cast<size_t>(number));
            const int got = cache->read(out.data(), static_cast<int>(number));
            const auto *expected = file.data() + static_cast<ptrdiff_t>(got > 0 ? pos : 0);
            const bool f_same = std::equal(expected, expected + got, out.begin());
            printf(f_same ? ">%d " : ">%d wrong bytes ", got);
            pos += got;
#ifdef GOLT_POISONING
            if (host.rest != nullptr && !__asan_address_is_poisoned(host.rest))
                printf("wrong poison ");
#endif
        }
        return testing::internal::GetCapturedStdout();
    }
};

std::string times(int count, const std::string &text)
{
    return count > 0 ? text + times(count - 1, text) : "";
}

TEST_F(Cache, AsksTheHostForThisAndNothingElse)
{
    const std::string t = "GOLT/TCACHE:  ", eof = t + "fillCache: eof[1]\n";
    const std::string again = t + "seek>> 0x00000000 [0x00000000,0x0000]\ns0 ";
    const std::string nofill = t + "seek:: nofill\n", none = "r65536=0 z10 r65536=0 >0 ";
    const struct {
        const char *name;
        uint64_t declared;
        int size;
        std::string steps, trace;
    } rows[] = {
        {"reads ahead until no buffer is free", 0, ALL, times(16, "4 ") + "0 65472 4",
         times(16, "R >4 ") + ">0 R >65472 >4 "},
        {"what is read without a call counts", 0, ALL, times(16, "4 ") + "40000 0 25344 0 100 28",
         times(16, "R >4 ") + ">40000 >0 >25344 >0 >100 R >28 "},
        {"slow, and released half full", 0, ALL, "<-1 <100 <-1 <200 <-1 <7 250 50 4",
         "r65536=-1 z10 r65536=100 z10 r65436=-1 z10 r65436=200 >250 " + again +
             "r65536=-1 >50 r65536=7 z10 r65529=65529 >4 "},
        {"reads ahead before it has read", 0, ALL, "0 4", "R >0 R >4 "},
        {"gives up after 5000 rounds", 0, ALL, times(10000, "<-1 ") + "10 10",
         times(5000, "r65536=-1 z10 ") + "GOLT/TCACHE: \t   fill @ 0x00000000: 65536 got     0 " +
             "[timeout:50000 us]\nr65536=-1 >0 " + times(4999, "r65536=-1 z10 ") + "R >10 "},
        {"gives up amid a block", 0, ALL, "<100 4 <50 " + times(4999, "<-1 ") + "300",
         "r65536=100 >4 r65436=50 z10 " + times(4999, "r65386=-1 z10 ") +
             "GOLT/TCACHE: \t   fill @ 0x00000064: 65436 got    50 [timeout:50000 us]\n" + again +
             "R >300 "},
        {"end of unknown place", 0, 1000, "1000 " + times(7, "10 ") + "@0x20000 @999 10",
         "r65536=1000 >1000 " + again + "r65536=1000 z10 r64536=0 z10 >0 " +
             times(4, "r64536=0 z10 r64536=0 >0 ") + "r64536=0 z10 r64536=0 " + t +
             "fillCache: eof[2]\n>0 >0 " + t + "seek:: 0x000003e8-0x00020000 (0x0001fc18)\n" +
             nofill + "r64536=0 z10 r64536=0 z10 r64536=0 >1 "},
        {"known end", 1000, 1000, "1500 10 @0x40000 1",
         "r65536=1000 " + eof + again + "r65536=1000 " + eof + ">1000 >0 " + t +
             "seek:: 0x000003e8-0x00040000 (0x0003fc18)\n" + nofill + t +
             "seek>> 0x00040000 [0x00040000,0x0000]\ns262144 r65536=0 z10 " + eof + "r65536=0 " +
             eof + ">0 "},
        {"more than declared", 100, ALL, "<200 150 10 0 @0x10000 <50 <0 <-1 1 1",
         "r65536=200 " + eof + ">150 >10 >0 " + t + "seek:: 0x000000c8-0x00010000 (0x0000ff38)\n" +
             nofill + t + "seek>> 0x00010000 [0x00010000,0x0000]\ns65536 r65536=50 z10 r65486=0 " +
             "z10 " + eof + ">1 r65486=-1 z10 r65486=65486 " + eof + ">1 "},
        {"a short way forward is read", 0, ALL, "<100 4 @0x10003 @0x50003 1 @0x40008 4",
         "r65536=100 >4 " + t + "seek:: 0x00000064-0x00010000 (0x0000ff9c)\nr65436=65436 " + t +
             "seek:: 0x00010000-0x00050000 (0x00040000)\nR R R R R >1 R >4 "},
        {"others are sought", 0, ALL, "1 @0x60005 1 @0x70005 1 @0x30000 1 @5 1",
         "R >1 " + t + "seek: 0x00060000\ns393216 R >1 R >1 " + t +
             "seek: 0x00030000\ns196608 R >1 R >1 "},
        {"the farthest read-ahead goes first", 0, ALL,
         times(16, "4 ") + "@0x150000 1 @0xe0000 1 @0xf0000 1 @0xc0000 1 @0xd0000",
         times(16, "R >4 ") + t + "seek: 0x00150000\ns1376256 R >1 >1 " + t +
             "seek: 0x000f0000\ns983040 R >1 >1 " + t + "seek: 0x000d0000\ns851968 "},
        {"two buffers, counted by bytes", 0, ALL, "@0xfff0 16 0 @0x1fffe 6 @0 65520 @0",
         "R >16 R >0 R >6 R >65520 " + t + "seek: 0x00000000\ns0 "},
        {"an impossible claim", 0, ALL, "<65537 <2147483647 10 10",
         "r65536=65537 z10 r65536=2147483647 >0 R >10 "},
        {"far off", UINT64_MAX, 0, "@-5 90 @-0x2fff0 90 @-5 90 @-0x8000000000000000",
         t + "seek: 0xffff0000\ns-65536 " + none + t + "seek: 0xfffd0000\ns-196608 " + none + t +
             "seek:: 0xfffd0000-0xffff0000 (0x00020000)\nr65536=0 z10 " + nofill + t +
             "seek>> 0xffff0000 [0xffff0000,0x0000]\ns-65536 " + none + t +
             "seek: 0x00000000\ns-9223372036854775808 "},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        host.end = row.size;
        open(row.declared);
        EXPECT_EQ(run(row.steps), row.trace);
    }
}

TEST_F(Cache, PassesThroughWhereItHasNoTwoBuffers)
{
    // In this order: the manager, its two heads, the first item, its buffer, the second item.
    for (int granted = 0; granted <= 7; ++granted) {
        g_TCacheEnabled = true;
        g_heap.granted = granted;
        g_heap.refused = granted < 3 ? 1 : 100;
        {
            const LibraryCall call;
            open(0);
        }
        g_heap = {};
        ASSERT_EQ(g_TCacheEnabled, granted == 7) << granted;
        if (g_TCacheEnabled) break;
        EXPECT_EQ(run("<10 <10 <5 <-1 <6 25 5 5 0 @7 3 @-9"),
                  granted == 0 ? ">0 >0 >0 >0 !-1 >0 !-1 "
                               : "r25=10 r15=10 r5=5 >25 r5=-1 >0 r5=6 >0 >0 s7 r3=3 >3 s-9 !-1 ")
            << granted;
        open(0);
        EXPECT_EQ(run("4 1"), "r4=4 >4 r1=1 >1 ") << "also a later one, with all its buffers";
    }
}

TEST(CacheList, HasItsNumbersToBeRead)
{
    TellingHost host;
    EXPECT_EQ(List(&host, 0).minFillBuffers, 8);
    EXPECT_EQ(cachebuf_t(16).INVALID_OFFSET, 255u);
}

TEST_F(Cache, GivesTheBytesOfTheFileWhateverTheHostDoes)
{
    const struct {
        const char *name;
        int longest, late, none;  // bytes in a read; reads of a hundred that give -1 and 0
        int declared, size;
    } rows[] = {
        {"all at once", ALL, 0, 0, 0, 20 * BLOCK + 1234},
        {"late, known size", 5000, 50, 0, 20 * BLOCK, 20 * BLOCK},
        {"late short reads", 900, 50, 0, 0, 18 * BLOCK + 1},
        {"gaps", 30000, 10, 20, 0, 20 * BLOCK},
        {"gaps, more than declared", 60000, 30, 5, 9 * BLOCK + 5, 20 * BLOCK},
    };
    for (const auto &row : rows) {
        std::mt19937 random(7);
        const auto below = [&](int limit) { return static_cast<int>(random() >> 1) % limit; };
        host.afterwards = [&] {
            const int roll = below(100) - row.late;
            if (roll < row.none) return roll < 0 ? -1 : 0;
            return row.longest == ALL ? ALL : 1 + below(row.longest);
        };
        host.end = row.size;
        open(static_cast<uint64_t>(row.declared));
        for (int i = 0; i < 1500; ++i) {
            const int64_t near = std::abs(pos + below(16 * BLOCK) - 8 * BLOCK);
            if (below(3) == 0) run("@" + std::to_string(below(4) ? near : below(22 * BLOCK)));
            const int left = static_cast<int>(std::max<int64_t>(row.size - pos, 0));
            const int size = 1 + below(1 << below(18));
            const std::string told = run(std::to_string(size));
            const int got = std::stoi(told.substr(told.rfind('>') + 1));
            EXPECT_EQ(told.find("wrong"), std::string::npos) << row.name << " at " << pos;
            ASSERT_TRUE(got == std::min(size, left) || (row.none > 0 && got < size)) << row.name;
        }
    }
}

// A buffer by itself, of the block of 0x10000.
TEST(CacheBuffer, AsksForWhatItLacksAndGivesWhatItHolds)
{
    Source host(file);
    host.seek(BLOCK, 0);
    cachebuf_t buffer(BLOCK);
    Bytes out(BLOCK);
    EXPECT_FALSE(buffer.needsFill(BLOCK) || buffer.consumed() || buffer.hasRoom());
    buffer.setup(BLOCK + 77);
    EXPECT_TRUE(buffer.off() == BLOCK && buffer.isValid() && buffer.hasRoom());
    EXPECT_TRUE(buffer.consumed() && !buffer.incache(BLOCK)) << "empty";
    EXPECT_EQ(buffer.fill(BLOCK + 10, nullptr, true), 0u);
    host.script = {100};
    EXPECT_EQ(buffer.fill(BLOCK + 10, &host, false), 100u);
    EXPECT_EQ(buffer.fill(BLOCK + 100, &host, true), 0u) << "they are there";
    EXPECT_EQ(host.reads, 1);
    EXPECT_TRUE(buffer.needsFill(BLOCK + 101) && !buffer.needsFill(BLOCK + 100));
    EXPECT_TRUE(buffer.needsFill(BLOCK - 1)) << "whole";
    EXPECT_TRUE(buffer.incache(2 * BLOCK - 1) && !buffer.incache(2 * BLOCK));
    EXPECT_EQ(buffer.read(BLOCK + 80, out.data(), 50), 20);
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 20, file.begin() + BLOCK + 80));
    EXPECT_EQ(buffer.read(BLOCK + 100, out.data(), 1) + buffer.read(BLOCK - 1, out.data(), 1) +
                  buffer.read(BLOCK, out.data(), 0) + buffer.read(BLOCK, out.data(), -1),
              0);
    EXPECT_EQ(buffer.read(BLOCK, out.data(), 79), 79);
    EXPECT_FALSE(buffer.consumed());
    EXPECT_EQ(buffer.read(BLOCK, out.data(), 1), 1);
    EXPECT_TRUE(buffer.consumed());
    EXPECT_EQ(buffer.fill(0, &host, true), BLOCK - 100u);
    EXPECT_EQ(buffer.fill(0, &host, true), 0u) << "full";
    EXPECT_EQ(host.reads, 2);
    buffer.invalidate();
    EXPECT_FALSE(buffer.isValid() || buffer.needsFill(0) || buffer.incache(BLOCK));
    EXPECT_EQ(buffer.len(), 0u);
    for (const uint64_t off : {0xFFFE0000, 0xFFFF0000}) {
        buffer.setup(off);
        host.script = {BLOCK - 1};
        buffer.fill(off + 1, &host, false);
        EXPECT_EQ(buffer.hasRoom(), off == 0xFFFE0000) << "with a byte missing, " << off;
    }
}

TEST(CacheList, CutsItsTextToTheRoom)
{
    cbuflist_t head(0);
    head.list_create(2, 16);
    for (const bool f_verbose : {false, true}) {
        char whole[400], text[400];
        const int size = head.list_getDbgInfo(whole, sizeof whole, f_verbose);
        EXPECT_EQ(head.list_getDbgInfo(text, 0, f_verbose), 0);
        for (int room = 1; room <= size; ++room) {
            memset(text, 'x', sizeof text);
            ASSERT_EQ(head.list_getDbgInfo(text, room, f_verbose), room);
            EXPECT_EQ(std::string(text), std::string(whole, static_cast<size_t>(room) - 1));
            EXPECT_EQ(text[room], 'x');
        }
    }
    head.list_destroy();
}

TEST(CacheList, DoesWithoutAListener)
{
    uint8_t byte = 0;
    TCache cache(nullptr, 0);
    EXPECT_EQ(cache.read(&byte, 1), 0);
    EXPECT_EQ(cache.seek(BLOCK), 0);
    g_TCacheEnabled = false;
    EXPECT_EQ(cache.read(&byte, 1), 0);
    EXPECT_EQ(cache.seek(0), -1);
    g_TCacheEnabled = true;
}

TEST(CacheList, TellsItsItemsInOrder)
{
    cbuflist_t head(0);
    head.list_create(2, 16);
    head.front()->setup(0x2abcd);
    char text[64];
    EXPECT_EQ(head.list_getDbgInfo(text, sizeof text, false), 54);
    EXPECT_STREQ(text, "[2] {0x20000,0x00000,0x00000},{0xff,0x00000,0x00000}*");

    const void *const first = head.front(), *const last = head.tail(), *const none = nullptr;
    const void *const list = &head;
    char verbose[400], expected[400];
    snprintf(expected, sizeof expected,
             "0x%p (2), tail=0x%p:\n"
             "      0x%p: prev=0x%p, next=0x%p, {0x20000,0x00000,0x00000}\n"
             "   T> 0x%p: prev=0x%p, next=0x%p, {0xff,0x00000,0x00000}\n",
             list, last, first, list, last, last, first, none);
    EXPECT_EQ(head.list_getDbgInfo(verbose, sizeof verbose, true),
              static_cast<int>(strlen(expected)) + 1);
    EXPECT_STREQ(verbose, expected);
    while (const cbuflist_t *item = head.list_detach(nullptr))
        delete item;
    EXPECT_EQ(head.tail(), nullptr);
    EXPECT_EQ(head.count(), 0);
}

}  // namespace
