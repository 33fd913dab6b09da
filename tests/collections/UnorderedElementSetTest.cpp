#include "ModelSnapshot.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Shelf.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Transaction.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <new>
#include <random>
#include <utility>

// Allocations on this thread that still succeed before one fails; none fails while negative.
// Every allocation of the binary passes here, the library's included.
namespace {
thread_local long allocationsBeforeFailure = -1;

void *allocateOrFail(std::size_t size) {
    if (allocationsBeforeFailure >= 0 && allocationsBeforeFailure-- == 0)
        throw std::bad_alloc();
    if (void *const block = std::malloc(size ? size : 1))
        return block;
    throw std::bad_alloc();
}
} // namespace

void *operator new(std::size_t size) { return allocateOrFail(size); }
void *operator new(std::size_t size, std::nothrow_t const &) noexcept {
    try {
        return allocateOrFail(size);
    } catch (std::bad_alloc const &) {
        return nullptr;
    }
}
void operator delete(void *block) noexcept { std::free(block); }
void operator delete(void *block, std::size_t) noexcept { std::free(block); }
void operator delete(void *block, std::nothrow_t const &) noexcept { std::free(block); }

namespace kivra::test::library {
namespace {

/// Makes the allocation after `succeeding` more on this thread fail, while it lives.
class FailingAllocation {
public:
    explicit FailingAllocation(long succeeding) noexcept { allocationsBeforeFailure = succeeding; }
    FailingAllocation(FailingAllocation const &) = delete;
    FailingAllocation &operator=(FailingAllocation const &) = delete;
    ~FailingAllocation() { allocationsBeforeFailure = -1; }
};

class UnorderedElementSetTest : public ::testing::Test {
protected:
    Book proxyOf(boost::uuids::uuid const &id, boost::optional<basalt::ustring> const &modelId = boost::none) {
        return Book::createProxy(
            model, ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)), modelId));
    }

    Model model = Model::create(ModelConstellation());
};

// A proxy has no hash of its own: it waits in the side table, out of sight of the size,
// and across an association until the far end confirms.
TEST_F(UnorderedElementSetTest, ProxiesWaitInTheSideTableUntilTheyResolve) {
    Shelf shelf = Shelf::create(model);
    Book book = Book::create(model);
    boost::uuids::uuid const id = ElementImpl::generateNewUuid();
    auto &set = shelf->getRecommendedMutable();
    set.insert(proxyOf(id));
    set.insert(proxyOf(id)); // an equal id keeps the first
    GenericCollectionInterface const &view = *set.getGenericInterface();
    EXPECT_EQ(view.genericSize(), 0u);
    EXPECT_FALSE(view.genericEmpty());
    EXPECT_EQ(set.unresolvedSize(), 1u);

    set.insert(book);
    EXPECT_EQ(set.getAllValues(), std::vector<ModelElement>{book});
    std::vector<ModelElement> const all = set.getAllValuesAndProxies();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_TRUE(all.back()->isProxy());

    Book const real = Book::create(model, id);
    shelf->getRecommended(); // an access resolves
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(set.unresolvedSize(), 0u);
    EXPECT_TRUE(set.contains(real));

    Author author = Author::create(model);
    boost::uuids::uuid const far = ElementImpl::generateNewUuid();
    author->getCoauthoredMutable().insert(proxyOf(far));
    Book::create(model, far);
    EXPECT_EQ(author->getCoauthored().size(), 0u) << "the book does not name the author";
    EXPECT_EQ(author->getCoauthored().unresolvedSize(), 1u);
}

TEST_F(UnorderedElementSetTest, WrongTypesAreRefusedOnlyThroughTheGenericView) {
    Shelf shelf = Shelf::create(model);
    GenericCollectionInterface &view = *shelf->getRecommendedMutable().getGenericInterface();
    EXPECT_THROW(view.genericAdd(Author::create(model)), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_THROW(view.genericRemove(Shelf::create(model)), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_TRUE(view.genericEmpty());
    EXPECT_TRUE(shelf->getRecommended().empty());
}

// The usual loop that erases some entries of a set as it walks it must meet every entry:
// `erase` gives the place of the entry behind the one that went, which is where the last
// one now stands. Small sets and those that keep an index alike.
TEST_F(UnorderedElementSetTest, ErasingWhileWalkingMeetsEveryEntry) {
    for (int const count : {5, 40}) {
        Author author = Author::create(model);
        std::vector<Book> kept;
        std::vector<Book> dropped;
        for (int i = 0; i < count; ++i) {
            Book const book = Book::create(model);
            book->setPages(i % 3 == 0 ? 0 : 1);
            author->getCoauthoredMutable().insert(book);
            (i % 3 == 0 ? dropped : kept).push_back(book);
        }
        auto &set = author->getCoauthoredMutable();
        std::size_t met = 0;
        for (auto it = set.begin(); it != set.end(); ++met)
            it = (*it)->getPages() == 0 ? set.erase(it) : std::next(it);
        EXPECT_EQ(met, std::size_t(count)) << count;
        EXPECT_EQ(set.size(), kept.size()) << count;
        for (Book const &book : kept)
            EXPECT_TRUE(set.contains(book) && book->getCoauthors().contains(author)) << count;
        for (Book const &book : dropped)
            EXPECT_FALSE(set.contains(book) || book->getCoauthors().contains(author)) << count;
        // The rest go as a range of the typed iterators, with their far ends.
        set.erase(std::next(set.begin()), set.end());
        ASSERT_EQ(set.size(), 1u);
        for (Book const &book : kept)
            EXPECT_EQ(book->getCoauthors().contains(author), set.contains(book)) << count;
    }
}

// While a document is read, both ends of a many-to-many pair arrive by themselves; a
// single-valued far end is still kept. So too in a transaction that keeps and tells
// nothing, where a link to a far set made already takes a shorter way.
TEST_F(UnorderedElementSetTest, AParseLeavesTheFarEndOfAManyToManyPairAlone) {
    Book book = Book::create(model);
    Author author = Author::create(model);
    Author writer = Author::create(model);
    for (bool const inTransaction : {false, true}) {
        Book const other = Book::create(model);
        {
            auto parse = model->startParse();
            Transaction transaction = inTransaction ? model->beginTransaction(false) : Transaction();
            book->getCoauthorsMutable().push_back(author);
            other->getCoauthorsMutable().push_back(author);
            writer->getBooksMutable().push_back(book);
            transaction.commit();
        }
        EXPECT_TRUE(author->getCoauthored().empty()) << inTransaction;
    }
    EXPECT_EQ(book->getWriter(), writer);
    book->getCoauthorsMutable().push_back(writer);
    EXPECT_TRUE(writer->getCoauthored().contains(book)) << "outside a parse the far end hears";
}

// The array behind the set against a plain model of it, through growth past the size where
// it keeps an index and removals that move entries: the same members, in the order they
// came with a leaving entry's place taken by the last. One set takes its arrays from the
// heap, one from the model of the element that owns it; a copy of the second, and the
// second itself, outlive the model.
TEST_F(UnorderedElementSetTest, TheTableAgreesWithAPlainModelThroughAnyMixOfChanges) {
    std::vector<Book> pool;
    for (int i = 0; i < 300; ++i)
        pool.push_back(Book::create(model));
    detail::ElementHashSet table;
    auto owned = std::make_unique<detail::ElementHashSet>();
    std::vector<ModelElement::Impl *> expected;
    std::mt19937 random(7);
    Transaction transaction = model->beginTransaction(false);
    for (int step = 0; step < 6000; ++step) {
        Book const &book = pool[random() % pool.size()];
        auto const at = std::find(expected.begin(), expected.end(), book.get());
        // Mostly growing in the first half, mostly shrinking in the second.
        if (random() % 4 < (step < 3000 ? 3u : 1u)) {
            EXPECT_EQ(table.insert(book).second, at == expected.end());
            EXPECT_EQ(owned->insert(book, pool[0].get()).second, at == expected.end());
            if (at == expected.end())
                expected.push_back(book.get());
        } else {
            EXPECT_EQ(table.erase(book), at != expected.end());
            EXPECT_EQ(owned->erase(book), at != expected.end());
            if (at != expected.end()) {
                *at = expected.back();
                expected.pop_back();
            }
        }
        if (step % 250 == 0) {
            detail::ElementHashSet const copy = *owned;
            for (detail::ElementHashSet const *set : {&std::as_const(table), &std::as_const(*owned), &copy}) {
                std::vector<ModelElement::Impl *> seen;
                for (ModelElement const &entry : *set)
                    seen.push_back(entry.get());
                ASSERT_EQ(seen, expected) << "step " << step;
            }
        }
    }
    transaction.commit();
    for (Book const &book : pool)
        ASSERT_EQ(table.contains(book),
                  std::find(expected.begin(), expected.end(), book.get()) != expected.end());
    EXPECT_EQ(table.size(), expected.size());

    detail::ElementHashSet const copy = *owned;
    model->destroy();
    model.reset();
    EXPECT_EQ(copy.size(), expected.size());
    owned.reset();
}

// A set whose property is its own opposite may hold its owner: the far end of that link is
// the set itself, which holds the element once and lets it go once, while links with other
// elements keep both ends.
TEST_F(UnorderedElementSetTest, AnElementThatIsItsOwnFriendIsHeldOnce) {
    Author const ann = Author::create(model);
    Author const bob = Author::create(model);
    Author const cat = Author::create(model);
    auto &friends = ann->getFriendsMutable();
    for (Author const &each : {bob, ann, cat, ann})
        friends.insert(each);
    EXPECT_EQ(friends.size(), 3u);
    EXPECT_TRUE(friends.contains(ann));
    EXPECT_TRUE(bob->getFriends().contains(ann));
    friends.erase(ann);
    EXPECT_EQ(friends.size(), 2u);
    EXPECT_FALSE(friends.contains(ann));
    EXPECT_TRUE(cat->getFriends().contains(ann));

    friends.insert(ann);
    ModelSnapshot const before = snapshot(model, Identity::Object);
    {
        Transaction transaction = model->beginRevertibleTransaction();
        friends.erase(bob);
        friends.erase(ann);
        friends.insert(ann);
        friends.clear();
        friends.insert(ann);
        EXPECT_EQ(transaction.rollBack(), TransactionResult::RolledBack);
    }
    EXPECT_EQ(describeDifference(before, snapshot(model, Identity::Object)), "");
    EXPECT_EQ(friends.size(), 3u);

    friends.clear();
    EXPECT_TRUE(friends.empty());
    EXPECT_TRUE(bob->getFriends().empty());
    EXPECT_TRUE(cat->getFriends().empty());
    // A proxy of the owner resolves in the set: the far end that confirms it is the set.
    friends.insert(bob);
    friends.insert(Author::createProxy(
        model, ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(ann->getUuid())), boost::none)));
    EXPECT_EQ(friends.unresolvedSize(), 1u);
    EXPECT_TRUE(ann->getFriends().contains(ann));
    EXPECT_EQ(friends.size(), 2u);
    EXPECT_EQ(friends.unresolvedSize(), 0u);
    ann->destroy();
    EXPECT_TRUE(bob->getFriends().empty());
}

// Memory running out while the set grows, builds its index or is copied leaves it as it was
// and usable: the element is not half in, and an index keeps room for all the array takes.
TEST_F(UnorderedElementSetTest, RunningOutOfMemoryLeavesTheSetAsItWas) {
    std::vector<Book> books;
    for (int i = 0; i < 300; ++i)
        books.push_back(Book::create(model));
    detail::ElementHashSet set;
    for (std::size_t i = 0; i < books.size(); ++i) {
        // The first or the second allocation of the step fails: the array, or the index.
        for (long succeeding : {0L, 1L}) {
            bool failed = false;
            {
                FailingAllocation const failing(succeeding);
                try {
                    set.insert(books[i]);
                } catch (std::bad_alloc const &) {
                    failed = true;
                }
            }
            if (failed) {
                ASSERT_EQ(set.size(), i) << "at " << i;
                ASSERT_FALSE(set.contains(books[i])) << "at " << i;
            }
        }
        set.insert(books[i]);
        ASSERT_EQ(set.size(), i + 1);
        if (i % 20 == 0 || i == 32 || i == 64) {
            std::vector<std::uint32_t> counts;
            for (Book const &book : books)
                counts.push_back(book->referenceCount());
            for (long succeeding : {0L, 1L}) {
                FailingAllocation const failing(succeeding);
                try {
                    detail::ElementHashSet const copy = set;
                } catch (std::bad_alloc const &) {
                }
            }
            for (std::size_t j = 0; j < books.size(); ++j)
                ASSERT_EQ(books[j]->referenceCount(), counts[j]) << "a failed copy keeps " << j;
        }
    }
    for (Book const &book : books)
        EXPECT_TRUE(set.contains(book));
}

} // namespace
} // namespace kivra::test::library
