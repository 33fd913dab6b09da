#include "core/ElementPool.hpp"
#include "core/ElementTable.hpp"
#include "core/PageMemory.hpp"

#include <library/Book.hpp>

#include <kivra/RetainedMemory.hpp>
#include <kivra/Transaction.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <thread>
#include <vector>

namespace kivra {
namespace {

using test::library::Book;

struct Block {
    char *bytes;
    std::size_t size;
};

// Blocks that overlap, or that lost what was written into them, show a free list or a
// bump pointer that hands out memory twice.
void expectDisjointAndIntact(std::vector<Block> const &blocks) {
    std::map<std::uintptr_t, Block> byAddress;
    for (Block const &block : blocks) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block.bytes) % 8, 0u);
        byAddress.emplace(reinterpret_cast<std::uintptr_t>(block.bytes), block);
    }
    ASSERT_EQ(byAddress.size(), blocks.size());
    std::uintptr_t end = 0;
    for (auto const &[address, block] : byAddress) {
        EXPECT_GE(address, end) << "blocks overlap";
        end = address + block.size;
        EXPECT_EQ(std::count(block.bytes, block.bytes + block.size, char(block.size % 251)), std::ptrdiff_t(block.size));
    }
}

TEST(ElementPool, BlocksOfEverySizeStayApartWhenFreedOnOtherThreads) {
    Model model = Model::createTransientModel();
    detail::ElementPool pool(model.get());
    std::vector<Block> live;
    auto allocate = [&](std::size_t size) {
        auto *bytes = static_cast<char *>(pool.allocate(size));
        std::memset(bytes, int(size % 251), size);
        live.push_back({bytes, size});
    };
    // Sizes across the pooled classes, past a slab's end and beyond the largest pooled one;
    // enough rounds that the pool passes from heap slabs to runs of huge pages.
    for (int round = 0; round < 32; ++round)
        for (std::size_t size = 8; size <= 5000; size += size < 2200 ? 13 : 401)
            allocate(size);
    expectDisjointAndIntact(live);

    // Every other block goes back from one of four threads; the writer then refills.
    std::vector<std::vector<Block>> given(4);
    std::vector<Block> kept;
    for (std::size_t i = 0; i < live.size(); ++i)
        (i % 2 ? given[i % 4] : kept).push_back(live[i]);
    std::vector<std::thread> threads;
    for (auto &blocks : given)
        threads.emplace_back([&blocks, &model] {
            for (Block const &block : blocks)
                EXPECT_EQ(detail::ElementPool::deallocate(block.bytes, block.size), model.get());
        });
    for (auto &thread : threads)
        thread.join();
    live = kept;
    for (auto const &blocks : given)
        for (Block const &block : blocks)
            allocate(block.size);
    expectDisjointAndIntact(live);
    for (Block const &block : live)
        detail::ElementPool::deallocate(block.bytes, block.size);
}

TEST(ElementPool, LastHandlesDroppedOnOtherThreadsWhileTheWriterCreates) {
    Model model = Model::createTransientModel();
    std::vector<std::vector<Book>> tombstones(4);
    {
        Transaction transaction = model->beginTransaction(false);
        for (int i = 0; i < 4000; ++i)
            tombstones[i % 4].push_back(Book::create(model));
        for (auto &books : tombstones)
            for (Book const &book : books)
                book->destroy();
        transaction.commit();
    }
    std::vector<std::thread> threads;
    for (auto &books : tombstones)
        threads.emplace_back([&books] { books.clear(); });
    std::vector<Book> made;
    {
        Transaction transaction = model->beginTransaction(false);
        for (int i = 0; i < 4000; ++i) {
            made.push_back(Book::create(model));
            made.back()->setTitle(std::u16string(40, char16_t(u'a' + i % 26)));
        }
        transaction.commit();
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(model->elementCount(), 4000u);
    for (std::size_t i = 0; i < made.size(); ++i)
        EXPECT_EQ(made[i]->getTitle(), std::u16string(40, char16_t(u'a' + i % 26)));
}

TEST(ElementPool, TheLastElementDroppedOnAnotherThreadFreesTheShellOfItsModel) {
    std::vector<Book> kept;
    {
        Model model = Model::createTransientModel();
        Transaction transaction = model->beginTransaction(false);
        for (int i = 0; i < 100; ++i)
            kept.push_back(Book::create(model));
        transaction.commit();
    }
    // The model is gone; its elements are tombstones whose memory is still the shell's.
    for (Book const &book : kept)
        EXPECT_FALSE(book->isValid());
    std::thread([&kept] { kept.clear(); }).join();
}

// A model of this size passes its pool's heap slabs and grows its table's index to a whole
// huge page: all of them go back to the process's stock when it goes, and the next model
// takes them, written over by the one before.
TEST(RetainedMemory, KeepsWhatModelsGaveBackUpToItsBoundAndNoMore) {
    std::size_t const start = getRetainedMemoryLimit();
    // 2*10^5 entries need an index of one huge page; fewer fit in the heap.
    constexpr int count = 200'000;
    auto const make = [] {
        Model model = Model::createTransientModel();
        Transaction transaction = model->beginTransaction(false);
        for (int i = 0; i < count; ++i)
            Book::create(model);
        transaction.commit();
        return model;
    };
    constexpr std::size_t mebibyte = std::size_t(1) << 20;
    setRetainedMemoryLimit(64 * mebibyte);
    make();
    EXPECT_GT(getRetainedMemory(), 0u);
    EXPECT_LE(getRetainedMemory(), 64 * mebibyte);
    {
        // Its table holds its own elements and nothing the last one left there.
        Model const next = make();
        std::size_t seen = 0;
        for (ModelElement const &element : next->getTopLevelElements())
            seen += element->getModelImpl() == next.get();
        EXPECT_EQ(seen, std::size_t(count));
    }
    // A lower bound gives back at once what lies beyond it.
    setRetainedMemoryLimit(3 * mebibyte);
    EXPECT_EQ(getRetainedMemoryLimit(), 3 * mebibyte);
    EXPECT_LE(getRetainedMemory(), 3 * mebibyte);
    setRetainedMemoryLimit(0);
    EXPECT_EQ(getRetainedMemory(), 0u);
    make();
    EXPECT_EQ(getRetainedMemory(), 0u);
    setRetainedMemoryLimit(start);
}


// A table's block goes back marked unwritten only if it is still all zero: its next taker
// skips the clearing. Each way of writing a table is followed by a take of the same size,
// which the stock serves with the block it got last.
TEST(RetainedMemory, ATableThatWasWrittenComesBackClearedToTheNextTaker) {
    std::size_t const start = getRetainedMemoryLimit();
    constexpr std::size_t mebibyte = std::size_t(1) << 20;
    setRetainedMemoryLimit(0);
    setRetainedMemoryLimit(64 * mebibyte);
    // 2*10^5 entries need an index of one huge page, twice as many one of two.
    static constexpr std::size_t half = 200'000;
    Model model = Model::createTransientModel();
    std::vector<ModelElement::Impl *> elements;
    {
        Transaction transaction = model->beginTransaction(false);
        for (std::size_t i = 0; i < 2 * half; ++i)
            elements.push_back(Book::create(model).get());
        transaction.commit();
    }
    auto const expectZeroWhenTaken = [](std::size_t bytes) {
        auto *const block = static_cast<unsigned char *>(detail::allocateZeroed(bytes));
        EXPECT_EQ(std::count(block, block + bytes, 0), std::ptrdiff_t(bytes));
        detail::freeZeroed(block, bytes);
    };
    std::size_t const mapped = detail::mappedBytes();
    {
        // Deferred, then settled by a reader on another thread, as in a frozen model.
        detail::ElementSet set;
        for (std::size_t i = 0; i < half; ++i)
            set.defer(elements[i]);
        std::thread([&] { EXPECT_EQ(set.find(elements[half / 2]->getUuid()), elements[half / 2]); }).join();
        set.clear();
        expectZeroWhenTaken(detail::hugePageSize);
    }
    {
        // Entered one at a time, then moved by growing for a backlog that is never settled.
        detail::ElementSet set;
        for (std::size_t i = 0; i < half; ++i)
            set.insert(elements[i]);
        for (std::size_t i = half; i < 2 * half; ++i)
            set.defer(elements[i]);
        set.clear();
        expectZeroWhenTaken(2 * detail::hugePageSize);
    }
    // Blocks that went to the stock and came back out left the count as they found it.
    EXPECT_EQ(detail::mappedBytes(), mapped);
    setRetainedMemoryLimit(start);
}

// Growing arrays ask for sizes of their own (a list grows by half): the stock serves any size
// of the same step with the block given back last. A zeroed block is cleared as far as its
// taker asked, but kept whole: what lies past that was someone else's, and an unwritten
// block must not pass it on as clear to a taker of the whole. Heap blocks are rounded to a
// step, huge ones to a page.
TEST(RetainedMemory, AGivenBackBlockServesItsStepAndComesBackClearWhenZeroed) {
    std::size_t const start = getRetainedMemoryLimit();
    setRetainedMemoryLimit(0);
    setRetainedMemoryLimit(std::size_t(64) << 20);
    void *const block = detail::takeBlock(100'000);
    detail::giveBlock(block, 100'000);
    EXPECT_GE(getRetainedMemory(), 100'000u);
    void *const again = detail::takeBlock(99'000);
    EXPECT_EQ(again, block);
    detail::giveBlock(again, 99'000);
    for (std::size_t const whole : {std::size_t(8192), 2 * detail::hugePageSize}) {
        std::size_t const asked = whole - whole / 4;
        auto *const dirty = static_cast<unsigned char *>(detail::takeBlock(whole));
        std::fill_n(dirty, whole, 0xA5);
        detail::giveBlock(dirty, whole);
        void *const zeroed = detail::allocateZeroed(asked);
        ASSERT_EQ(zeroed, dirty);
        detail::freeZeroed(zeroed, asked, /*unwritten=*/true);
        auto *const clear = static_cast<unsigned char *>(detail::allocateZeroed(whole));
        ASSERT_EQ(clear, dirty);
        EXPECT_EQ(std::count(clear, clear + whole, 0), std::ptrdiff_t(whole)) << whole;
        detail::freeZeroed(clear, whole);
    }
    setRetainedMemoryLimit(0);
    EXPECT_EQ(getRetainedMemory(), 0u);
    setRetainedMemoryLimit(start);
}

#if defined(__SANITIZE_ADDRESS__)
// Under AddressSanitizer a block in the stock is no one's: its last owner's use is caught.
TEST(RetainedMemoryDeathTest, AHeapBlockInTheStockIsNoOnesToWrite) {
    auto *const block = static_cast<char volatile *>(detail::takeBlock(100'000));
    detail::giveBlock(const_cast<char *>(block), 100'000);
    EXPECT_DEATH(block[10] = 1, "use-after-poison");
}
#endif

// A set that was large and is now small closes up over an index of its own size: one of
// the old size would be cleared whole at every close-up, for a few elements, and keep its
// pages all the while.
TEST(RetainedMemory, ASetThatShrankGivesItsLargeIndexBack) {
    // 2*10^5 entries need an index of one huge page.
    static constexpr std::size_t count = 200'000;
    static constexpr std::size_t left = 100;
    Model model = Model::createTransientModel();
    std::vector<ModelElement::Impl *> elements;
    {
        Transaction transaction = model->beginTransaction(false);
        for (std::size_t i = 0; i < count; ++i)
            elements.push_back(Book::create(model).get());
        transaction.commit();
    }
    std::size_t const mapped = detail::mappedBytes();
    detail::ElementSet set;
    for (ModelElement::Impl *element : elements)
        ASSERT_TRUE(set.insert(element));
    EXPECT_GE(detail::mappedBytes(), mapped + detail::hugePageSize);
    // The oldest leave first: holes pile up in front, and the list closes up many times.
    for (std::size_t i = 0; i < count - left; ++i)
        ASSERT_TRUE(set.erase(elements[i]));
    EXPECT_EQ(detail::mappedBytes(), mapped);
    std::vector<ModelElement::Impl *> walked;
    set.forEach([&](ModelElement::Impl *element) { walked.push_back(element); });
    EXPECT_EQ(walked, std::vector<ModelElement::Impl *>(elements.end() - left, elements.end()));
    for (std::size_t i = count - 2 * left; i < count; ++i)
        EXPECT_EQ(set.find(elements[i]->getUuid()), i < count - left ? nullptr : elements[i]) << i;
}

} // namespace
} // namespace kivra
