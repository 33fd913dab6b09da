// Readers of frozen models on several threads at once. Run alone under ThreadSanitizer
// (tools/dev tsan): a getter that writes while others read shows up as a data race, or
// as a use after free of the proxy it replaced.

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Shelf.hpp>

#include <kivra/Model.hpp>
#include <kivra/ElementId.hpp>
#include <kivra/ElementSequence.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/PrimitiveCollection.hpp>
#include <kivra/StringToStringMap.hpp>
#include <kivra/UnorderedElementSet.hpp>
#include <kivra/Value.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <latch>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

namespace kivra::test::library {
namespace {

using Tag = ModelElement::Impl::ReflectionPrivateTag;

basalt::ustring textOf(boost::uuids::uuid const &id) { return basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)); }

/// What a reference member holds, without resolving or resetting anything.
ModelElement storedIn(Book const &book, meta::Property const &property) {
    return book->getPropertyValue(property, Tag::NO_PROXY_RESOLVE).getElement();
}

/// Two members of a constellation. Each reader of `a` holds, in `author`, a proxy that no
/// one has read yet, naming an author of its own model or of `b`; and in `sequel` a book
/// destroyed since, of `b` (reads as none) or, every third one, of `a` (reads as invalid).
class FrozenReaders : public ::testing::Test {
protected:
    static constexpr std::size_t count = 2000;
    static constexpr int threads = 8;

    void SetUp() override {
        Transaction build = a->beginTransaction();
        std::vector<Book> doomed;
        for (std::size_t i = 0; i < count; ++i) {
            bool const far = i % 2 == 1;
            Author const author = Author::create(far ? b : a);
            authors.push_back(author);
            Book const reader = Book::create(a);
            ProxyId const id(u"uuid", textOf(author->getUuid()),
                             far ? boost::optional<basalt::ustring>(b->getModelURI()) : boost::none);
            reader->setAuthor(Author::createProxy(a, id));
            Book const sequel = Book::create(i % 3 == 2 ? a : b);
            reader->setSequel(sequel);
            doomed.push_back(sequel);
            readers.push_back(reader);
        }
        build.commit();
        Transaction destruction = a->beginTransaction();
        for (Book const &book : doomed)
            book->destroy();
        destruction.commit();
    }

    /// Reads every reader on `threads` threads at once, each also copying and dropping
    /// handles of the elements it meets; counts the reads that gave something unexpected.
    std::size_t readConcurrently() {
        std::atomic<std::size_t> wrong{0};
        std::latch start(threads);
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&] {
                std::vector<ModelElement> kept;
                start.arrive_and_wait();
                for (int pass = 0; pass < 2; ++pass)
                    for (std::size_t i = 0; i < count; ++i) {
                        Book const reader = readers[i];
                        Author const author = reader->getAuthor();
                        Book const sequel = reader->getSequel();
                        bool const ok = author == authors[i] && !author->isProxy() &&
                                        (i % 3 == 2 ? sequel.get() && !sequel : !sequel.get());
                        if (!ok)
                            ++wrong;
                        kept.push_back(ModelElement(author));
                        kept.push_back(ModelElement(reader));
                        if (kept.size() > 64)
                            kept.clear();
                    }
            });
        for (std::thread &thread : pool)
            thread.join();
        return wrong.load();
    }

    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    std::vector<Author> authors;
    std::vector<Book> readers;
};

TEST_F(FrozenReaders, ReadEveryReferenceWithoutWritingIt) {
    std::uint32_t const authorCount = authors.front().get()->referenceCount();
    std::uint32_t const readerCount = readers.front().get()->referenceCount();
    {
        Model::Freezer const frozenA = a->freeze();
        Model::Freezer const frozenB = b->freeze();
        EXPECT_EQ(readConcurrently(), 0u);
    }
    // Nothing was stored: the proxies and the tombstones of the other model are still
    // where they were, and every handle the readers made is gone again.
    for (std::size_t i : {std::size_t(0), std::size_t(1), count - 1}) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(storedIn(readers[i], Book::Impl::authorProperty())->isProxy());
        EXPECT_TRUE(storedIn(readers[i], Book::Impl::sequelProperty()).get());
    }
    EXPECT_EQ(authors.front().get()->referenceCount(), authorCount);
    EXPECT_EQ(readers.front().get()->referenceCount(), readerCount);

    // Thawed, a read replaces the proxy and lets go of the other model's tombstone.
    EXPECT_EQ(readers[1]->getAuthor(), authors[1]);
    EXPECT_EQ(storedIn(readers[1], Book::Impl::authorProperty()), authors[1]);
    EXPECT_FALSE(readers[1]->getSequel().get());
    EXPECT_FALSE(storedIn(readers[1], Book::Impl::sequelProperty()).get());
}

// Readers meeting at the first use of collections that nobody has made yet, one of each
// kind an element can hold: each is made once, every reader gets that one, and the writer
// later fills the same one.
TEST(FrozenCollections, ReadersMeetingAtFirstUseShareOneCollection) {
    constexpr std::size_t count = 1500;
    constexpr int threads = 6;
    Model const model = Model::create(ModelConstellation::create());
    std::vector<Shelf> shelves;
    std::vector<Author> authors;
    {
        Transaction build = model->beginTransaction();
        for (std::size_t i = 0; i < count; ++i) {
            shelves.push_back(Shelf::create(model));
            authors.push_back(Author::create(model));
            // Every other author's books exists already, holding one book.
            if (i % 2 == 1)
                Book::create(model)->setWriter(authors.back());
        }
        build.commit();
    }

    using Seen = std::array<void const *, 8>;
    auto const look = [&](std::size_t i) {
        Shelf const &shelf = shelves[i];
        Author const &author = authors[i];
        return Seen{&shelf->getBooks(),  &shelf->getRecommended(), &shelf->getCatalogue(), &shelf->getCodes(),
                    &shelf->getSources(), &shelf->getLabels(),      &author->getDrafts(),    &author->getBooks()};
    };
    auto const holdsWhatWasPut = [&](std::size_t i) {
        Shelf const &shelf = shelves[i];
        return shelf->getBooks().empty() && shelf->getRecommended().empty() && shelf->getCatalogue().empty() &&
               shelf->getCodes().empty() && shelf->getSources().empty() && shelf->getLabels().empty() &&
               authors[i]->getDrafts().empty() && authors[i]->getBooks().size() == i % 2;
    };

    std::vector<std::vector<Seen>> seen(threads, std::vector<Seen>(count));
    std::atomic<std::size_t> wrong{0};
    {
        Model::Freezer const frozen = model->freeze();
        std::latch start(threads);
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                start.arrive_and_wait();
                for (std::size_t i = 0; i < count; ++i) {
                    seen[t][i] = look(i);
                    if (!holdsWhatWasPut(i))
                        ++wrong;
                }
            });
        for (std::thread &thread : pool)
            thread.join();
    }
    EXPECT_EQ(wrong.load(), 0u);
    std::size_t differing = 0;
    for (std::size_t i = 0; i < count; ++i)
        for (int t = 0; t < threads; ++t)
            differing += seen[t][i] != look(i);
    EXPECT_EQ(differing, 0u);

    Transaction fill = model->beginTransaction();
    shelves.front()->getBooksMutable().push_back(Book::create(model));
    shelves.front()->getLabelsMutable().insert(u"floor", u"2", CollisionResolution::Replace);
    fill.commit();
    EXPECT_EQ(&shelves.front()->getBooks(), seen[0][0][0]);
    EXPECT_EQ(shelves.front()->getBooks().size(), 1u);
    EXPECT_EQ(&shelves.front()->getLabels(), seen[0][0][5]);
    EXPECT_EQ(shelves.front()->getLabels().size(), 1u);
}

// On several threads of a frozen model, a set resolves none of its proxies into itself, and
// a list, which keeps its proxies in place, gives each reader the element and keeps the
// proxy: both wait for the thaw to store, as a single reference does.
TEST(FrozenCollectionReaders, ReadAListAndASetWithoutStoringWhatTheyResolve) {
    constexpr int count = 64;
    constexpr int threads = 8;
    Model model = Model::create(ModelConstellation());
    Shelf const shelf = Shelf::create(model);
    Author const author = Author::create(model);
    std::vector<boost::uuids::uuid> ids;
    for (int i = 0; i < count; ++i) {
        ids.push_back(ElementImpl::generateNewUuid());
        ProxyId const id(u"uuid", textOf(ids.back()), boost::none);
        shelf->getRecommendedMutable().insert(Book::createProxy(model, id));
        author->getBooksMutable().push_back(Book::createProxy(model, id));
    }
    std::vector<Book> books;
    for (boost::uuids::uuid const &id : ids) {
        books.push_back(Book::create(model, id));
        books.back()->basicAssociate(author, Book::Impl::writerProperty()); // the far end confirms
    }
    auto const proxies = [&] {
        int left = 0;
        for (ModelElement const &entry : author->getBooks().toSTLCollection())
            left += entry->isProxy();
        return left;
    };
    {
        Model::Freezer const frozen = model->freeze();
        std::latch start(threads);
        std::atomic<int> wrong{0};
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back([&] {
                start.arrive_and_wait();
                ElementSequence<Book> const &list = author->getBooks();
                for (int pass = 0; pass < 10; ++pass) {
                    (void)shelf->getRecommended().size();
                    int i = 0;
                    for (Book const &book : list)
                        wrong += book != books[std::size_t(i++)];
                    wrong += list.front() != books.front() || list[1] != books[1];
                    wrong += list.getAllValues().size() != std::size_t(count);
                }
            });
        for (std::thread &thread : pool)
            thread.join();
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(shelf->getRecommended().unresolvedSize(), std::size_t(count));
        EXPECT_EQ(proxies(), count);
    }
    // Thawed, a read stores again.
    EXPECT_EQ(shelf->getRecommended().size(), std::size_t(count));
    EXPECT_EQ(shelf->getRecommended().unresolvedSize(), 0u);
    EXPECT_EQ(author->getBooks().front(), books.front());
    EXPECT_EQ(proxies(), 0);
}

// Resolving an entry asks its far end whether it holds the owner; a far end that holds a
// proxy of the owner answers yes, and, frozen, keeps its proxy, single or in a set.
TEST(FrozenListReaders, AFarEndAskedWhileResolvingKeepsItsProxy) {
    Model model = Model::create(ModelConstellation());
    Author const author = Author::create(model);
    Book const book = Book::create(model);
    auto const proxyOf = [&](auto const &element) {
        using Handle = std::decay_t<decltype(element)>;
        return Handle::createProxy(model, ProxyId(u"uuid", textOf(element->getUuid()), boost::none));
    };
    author->getBooksMutable().push_back(proxyOf(book));
    book->setWriter(proxyOf(author));
    book->getCoauthorsMutable().push_back(proxyOf(author));
    author->getCoauthoredMutable().insert(proxyOf(book));
    {
        Model::Freezer const frozen = model->freeze();
        EXPECT_EQ(author->getBooks().front(), book);
        EXPECT_EQ(book->getCoauthors().front(), author);
        EXPECT_TRUE(storedIn(book, Book::Impl::writerProperty())->isProxy());
        EXPECT_EQ(author->getCoauthored().unresolvedSize(), 1u);
        EXPECT_TRUE(author->getBooks().rawAt(0)->isProxy());
    }
    EXPECT_EQ(author->getBooks().front(), book); // thawed, both ends store
    EXPECT_FALSE(storedIn(book, Book::Impl::writerProperty())->isProxy());
}

} // namespace
} // namespace kivra::test::library
