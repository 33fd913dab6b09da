#include "ModelSnapshot.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Property.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>

#include <gtest/gtest.h>

namespace kivra::test::library {
namespace {

using Tag = ModelElement::Impl::ReflectionPrivateTag;

class ElementSequenceTest : public ::testing::Test {
protected:
    static std::vector<Book> booksOf(Author const &author) {
        return {author->getBooks().begin(), author->getBooks().end()};
    }
    static std::vector<Book> booksOf(Shelf const &shelf) {
        return {shelf->getBooks().begin(), shelf->getBooks().end()};
    }
    ProxyId idOf(boost::uuids::uuid const &id) const {
        return ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)), boost::none);
    }

    Model model = Model::create(ModelConstellation());
};

// A list of books whose far end is each book's single writer.
TEST_F(ElementSequenceTest, BooksAndTheirWriterStayConsistent) {
    Author ann = Author::create(model);
    Author bob = Author::create(model);
    Book first = Book::create(model);
    Book second = Book::create(model);
    Book third = Book::create(model);

    ann->getBooksMutable().push_back(first);
    ann->getBooksMutable().push_back(first); // unique: turned away quietly
    second->setWriter(ann);                  // from the single end
    EXPECT_EQ(booksOf(ann), (std::vector<Book>{first, second}));
    EXPECT_EQ(first->getWriter(), ann);

    auto &books = ann->getBooksMutable();
    books.insert(books.begin(), third);
    EXPECT_EQ(booksOf(ann), (std::vector<Book>{third, first, second}));
    EXPECT_EQ(third->getWriter(), ann);

    // Moving a book to another writer takes it out of the first list.
    bob->getBooksMutable().push_back(first);
    EXPECT_EQ(booksOf(ann), (std::vector<Book>{third, second}));
    EXPECT_EQ(first->getWriter(), bob);

    // The checked replacement tells the new book first, then the old one.
    books[0] = first;
    EXPECT_EQ(booksOf(ann), (std::vector<Book>{first, second}));
    EXPECT_EQ(first->getWriter(), ann);
    EXPECT_FALSE(third->getWriter());
    EXPECT_TRUE(bob->getBooks().empty());
    EXPECT_THROW(books[0] = second, Error<messages::CannotAddSecondObject>);
    EXPECT_THROW(books[0] = Book(), Error<messages::CannotAddNonExistentObject>);

    books.erase(second);
    EXPECT_FALSE(second->getWriter());
    // Destroying a book takes it out of its writer's list; destroying the writer frees the books.
    first->destroy();
    EXPECT_TRUE(ann->getBooks().empty());
    ann->getBooksMutable().push_back(third);
    ann->destroy();
    EXPECT_FALSE(third->getWriter());
}

// A composite list without opposite: its books are children, and leave it as top level.
TEST_F(ElementSequenceTest, CompositeChildrenMoveOrBecomeTopLevel) {
    Shelf left = Shelf::create(model);
    Shelf right = Shelf::create(model);
    Book book = Book::create(model);
    Book other = Book::create(model);

    left->getBooksMutable().push_back(book);
    left->getBooksMutable().push_back(other);
    EXPECT_EQ(book->container(), left);
    EXPECT_FALSE(book->isTopLevel());
    EXPECT_TRUE(left->getBooks().contains(book));

    right->getBooksMutable().push_back(book); // a move
    EXPECT_EQ(left->getBooks().size(), 1u);
    EXPECT_EQ(book->container(), right);
    EXPECT_FALSE(left->getBooks().contains(book));

    left->setFeatured(other); // into another composite of the same owner
    EXPECT_TRUE(left->getBooks().empty());
    EXPECT_EQ(left->getFeatured(), other);

    right->getBooksMutable().pop_back();
    EXPECT_TRUE(book->isTopLevel());
    auto const topLevel = model->getTopLevelElements();
    EXPECT_NE(std::find(topLevel.begin(), topLevel.end(), book), topLevel.end());

    right->getBooksMutable().push_back(book);
    right->destroy();
    EXPECT_FALSE(book);
}

// A child never changes model by joining a container. Refused before anything is stored,
// since a mutation outside a transaction takes a shallow one, which cannot put the
// collection back: neither a list nor a keyed container may be left naming an element
// that does not name it as container.
TEST_F(ElementSequenceTest, AChildOfAnotherModelIsRefusedBeforeItIsStored) {
    ModelConstellation const constellation;
    Model const here = Model::create(constellation);
    Model const there = Model::create(constellation);
    Shelf shelf = Shelf::create(here);
    Author author = Author::create(here);
    Book book = Book::create(here);
    Book child = Book::create(here);
    shelf->getBooksMutable().push_back(child);
    Book const stranger = Book::create(there);

    EXPECT_THROW(shelf->getBooksMutable().push_back(stranger), Error<messages::CannotChangeModel>);
    EXPECT_THROW(shelf->getBooksMutable()[0] = stranger, Error<messages::CannotChangeModel>);
    EXPECT_THROW(book->getChaptersMutable().push_back(stranger), Error<messages::CannotChangeModel>);
    EXPECT_THROW(author->getDraftsMutable().insert(stranger), Error<messages::CannotChangeModel>);
    EXPECT_THROW(shelf->getBooksMutable().resize(3, Book::BuilderWrapper(std::make_unique<Book::Builder>(there))),
                 Error<messages::CannotChangeModel>);
    EXPECT_EQ(booksOf(shelf), std::vector<Book>{child});
    EXPECT_EQ(child->container(), shelf);
    EXPECT_TRUE(book->getChapters().empty());
    EXPECT_TRUE(author->getDrafts().empty());
    EXPECT_TRUE(stranger->isTopLevel());
    EXPECT_FALSE(stranger->getChapterOf());
    EXPECT_EQ(there->elementCount(), 1u); // the builder of the other model made nothing there
}

struct Watcher : Listener {
    void transactionCommitted(std::shared_ptr<ReportData> const &) {}
};

// A plain transaction fills a composite list and links elements by a shorter way than one
// that records or is watched: each must end in the same model, both ends of every link in
// agreement, and the children held exactly once.
TEST_F(ElementSequenceTest, NewChildrenEndAlikeWhetherTheTransactionKeepsOrTellsOrNot) {
    enum Kind { Plain, Revertible, Watched };
    auto const id = [](int n) {
        boost::uuids::uuid uuid{};
        uuid.data[15] = std::uint8_t(n);
        return uuid;
    };
    auto const fill = [&](Kind kind) {
        Model filled = Model::create(ModelConstellation());
        Book const earlier = Book::create(filled, id(1)); // made by a transaction of its own
        Watcher watcher;
        if (kind == Watched)
            addListener<ListenerRole::Observer>(filled, watcher);
        {
            Transaction transaction = filled->beginTransaction(kind == Revertible);
            Shelf const shelf = Shelf::create(filled, id(2));
            Shelf const other = Shelf::create(filled, id(3));
            auto &books = shelf->getBooksMutable();
            for (int n = 4; n < 8; ++n)
                books.push_back(Book::create(filled, id(n)));
            books.push_back(earlier);
            books.push_back(earlier); // held already: turned away
            other->getBooksMutable().push_back(books[1]); // a move
            books.erase(books[0]);                        // top level again
            // Links: a list whose far end is single (a book changes writer), and a list whose
            // far end is a set.
            Author const ann = Author::create(filled, id(8));
            Author const bob = Author::create(filled, id(9));
            for (std::size_t i = 0; i < books.size(); ++i) {
                ann->getBooksMutable().push_back(books[i]);
                books[i]->getCoauthorsMutable().push_back(i % 2 ? ann : bob);
                books[i]->getCoauthorsMutable().push_back(bob);
            }
            bob->getBooksMutable().push_back(books[0]);
            ann->getBooksMutable().push_back(books[1]); // held already: turned away
            transaction.commit();
        }
        if (kind == Watched)
            removeListener(filled, watcher);
        return filled;
    };
    Model const plain = fill(Plain);
    for (Kind kind : {Revertible, Watched})
        EXPECT_EQ(describeDifference(snapshot(fill(kind)), snapshot(plain)), "") << kind;

    // Held once: emptied, the lists leave their books to the model, which keeps them alive.
    auto const shelves = plain->getTopLevelElements();
    std::size_t const count = plain->elementCount();
    {
        Transaction transaction = plain->beginTransaction(false);
        for (ModelElement const &element : shelves)
            if (auto *const shelf = dynamic_cast<Shelf::Impl *>(element.get()))
                shelf->getBooksMutable().clear();
        transaction.commit();
    }
    EXPECT_EQ(plain->elementCount(), count);
    EXPECT_EQ(plain->getTopLevelElements().size(), count);
}

// A full list given one of its own entries must read it before it grows: a child held
// already is turned away (outside and inside a plain transaction), and a proxy, which a
// unique list does not count as held, is appended again.
TEST_F(ElementSequenceTest, AFullListReadsItsOwnEntryBeforeItGrows) {
    auto const fill = [this](auto &list) {
        do
            list.push_back(Book::create(model));
        while (list.size() != list.toSTLCollection().capacity());
    };
    auto &shelved = Shelf::create(model)->getBooksMutable();
    for (bool const inTransaction : {false, true}) {
        Transaction transaction = inTransaction ? model->beginTransaction(false) : Transaction();
        fill(shelved);
        std::size_t const size = shelved.size();
        Book const last = shelved.back();
        shelved.push_back(shelved.rawAt(size - 1));
        EXPECT_EQ(shelved.size(), size) << inTransaction;
        EXPECT_EQ(shelved.back(), last) << inTransaction;
        transaction.commit();
    }

    Author const author = Author::create(model);
    auto &written = author->getBooksMutable();
    boost::uuids::uuid absent{};
    absent.data[0] = 1;
    written.push_back(Book::createProxy(model, idOf(absent)));
    fill(written);
    written.push_back(written.rawAt(0));
    EXPECT_TRUE(written.rawAt(written.size() - 1) == written.rawAt(0));
}

// A composite list with opposite: the child's container end and the list agree.
TEST_F(ElementSequenceTest, ChaptersAndTheirBookAgreeFromEitherEnd) {
    Book outer = Book::create(model);
    Book chapter = Book::create(model);
    Book other = Book::create(model);

    chapter->setChapterOf(outer);
    EXPECT_EQ(outer->getChapters().size(), 1u);
    outer->getChaptersMutable().push_back(other);
    EXPECT_EQ(other->getChapterOf(), outer);
    other->setChapterOf(chapter);
    EXPECT_EQ(outer->getChapters().size(), 1u);
    EXPECT_EQ(chapter->getChapters().front(), other);
    EXPECT_THROW(other->getChaptersMutable().push_back(outer), Error<messages::CircularContainment>);

    outer->getChaptersMutable().clear();
    EXPECT_FALSE(chapter->getChapterOf());
    EXPECT_TRUE(chapter->isTopLevel());
    EXPECT_EQ(other->getChapterOf(), chapter);
}

// Many to many: a unique list at one end, a set at the other.
TEST_F(ElementSequenceTest, CoauthorsAndTheirBooksStayConsistent) {
    std::vector<Author> authors;
    Book book = Book::create(model);
    for (int i = 0; i < 100; ++i) {
        authors.push_back(Author::create(model));
        book->getCoauthorsMutable().push_back(authors.back());
        book->getCoauthorsMutable().push_back(authors.back());
    }
    auto &coauthors = book->getCoauthorsMutable();
    EXPECT_EQ(coauthors.size(), 100u);
    for (int i = 0; i < 100; i += 3)
        coauthors.erase(authors[i]);
    coauthors.erase(coauthors.begin(), coauthors.begin() + 5);
    for (Author const &author : authors) {
        bool const held = std::find(coauthors.begin(), coauthors.end(), author) != coauthors.end();
        EXPECT_EQ(coauthors.contains(author), held);
        EXPECT_EQ(author->getCoauthored().contains(book), held);
    }
    // A removed author comes back once, whatever the index says.
    coauthors.push_back(authors[0]);
    coauthors.push_back(authors[0]);
    EXPECT_EQ(std::count(coauthors.begin(), coauthors.end(), authors[0]), 1);

    authors[1]->destroy();
    EXPECT_FALSE(coauthors.contains(authors[1]));
    book->destroy();
    for (Author const &author : authors) {
        if (author) {
            EXPECT_TRUE(author->getCoauthored().empty());
        }
    }
}

// A unique list keeps its filter or its index as it shrinks: a short list may still have one,
// and an append by the short way of a quiet transaction must note its newcomer there, or the
// next append of the same element finds it absent and stores it twice.
TEST_F(ElementSequenceTest, AShrunkUniqueListStillTurnsAwayWhatItHoldsOnTheShortWay) {
    for (int const grownTo : {20, 60}) {
        Book const book = Book::create(model);
        auto &coauthors = book->getCoauthorsMutable();
        for (int i = 0; i < grownTo; ++i)
            coauthors.push_back(Author::create(model));
        coauthors.erase(coauthors.begin() + 2, coauthors.end());
        Author const newcomer = Author::create(model);
        {
            Transaction transaction = model->beginTransaction(false);
            coauthors.push_back(newcomer);
            coauthors.push_back(newcomer);
            transaction.commit();
        }
        EXPECT_EQ(std::count(coauthors.begin(), coauthors.end(), newcomer), 1) << grownTo;
    }
}

// A property may be its own opposite, and an element its own peer: the far end of that link
// is the very list that changes. The element stands in it once and in its place however it
// comes and goes, while links with other elements keep both ends.
TEST_F(ElementSequenceTest, AnElementThatIsItsOwnPeerStandsOnceInItsPlace) {
    using Peers = std::vector<Author>;
    auto const peersOf = [](Author const &author) { return Peers(author->getPeers().begin(), author->getPeers().end()); };
    // Outside a transaction by the general way; in a plain one by the short way of a quiet link.
    for (bool const quiet : {false, true}) {
        SCOPED_TRACE(quiet ? "quiet" : "general");
        Author const ann = Author::create(model);
        Author const bob = Author::create(model);
        Author const cat = Author::create(model);
        Transaction transaction = quiet ? model->beginTransaction(false) : Transaction();
        auto &peers = ann->getPeersMutable();
        for (Author const &each : {bob, ann, cat, ann})
            peers.push_back(each);
        transaction.commit();
        EXPECT_EQ(peersOf(ann), (Peers{bob, ann, cat}));
        EXPECT_EQ(peersOf(bob), (Peers{ann}));
        EXPECT_EQ(peersOf(cat), (Peers{ann}));
    }

    Author const ann = Author::create(model);
    Author const bob = Author::create(model);
    Author const cat = Author::create(model);
    Author const dan = Author::create(model);
    auto &peers = ann->getPeersMutable();
    for (Author const &each : {bob, cat})
        peers.push_back(each);
    peers.insert(peers.begin() + 1, ann);
    EXPECT_EQ(peersOf(ann), (Peers{bob, ann, cat}));
    peers.erase(peers.begin() + 1);
    EXPECT_EQ(peersOf(ann), (Peers{bob, cat}));
    peers.insert(peers.begin(), ann);
    peers.erase(ann);
    EXPECT_EQ(peersOf(ann), (Peers{bob, cat}));

    // Replaced by itself, and itself replaced: the other end of the entry it meets lets go
    // or takes hold, and the order stands.
    peers[0] = ann;
    EXPECT_EQ(peersOf(ann), (Peers{ann, cat}));
    EXPECT_TRUE(bob->getPeers().empty());
    peers[0] = dan;
    EXPECT_EQ(peersOf(ann), (Peers{dan, cat}));
    EXPECT_EQ(peersOf(dan), (Peers{ann}));

    // A roll-back gives back the list as it was.
    peers.insert(peers.begin() + 1, ann);
    ModelSnapshot const before = snapshot(model, Identity::Object);
    {
        Transaction transaction = model->beginRevertibleTransaction();
        peers.erase(ann);
        peers.push_back(ann);
        peers[0] = bob;
        peers.clear();
        peers.push_back(ann);
        EXPECT_EQ(transaction.rollBack(), TransactionResult::RolledBack);
    }
    EXPECT_EQ(describeDifference(before, snapshot(model, Identity::Object)), "");
    EXPECT_EQ(peersOf(ann), (Peers{dan, ann, cat}));

    // A proxy of the element resolves in its own list, which is the far end that confirms
    // it: a list long enough to keep an index counts it once.
    Author const eve = Author::create(model);
    auto &many = eve->getPeersMutable();
    for (int i = 0; i < 60; ++i)
        many.push_back(Author::create(model));
    many.push_back(Author::createProxy(model, idOf(eve->getUuid())));
    EXPECT_EQ(eve->getPeers().back(), eve);
    many.erase(eve);
    many.push_back(eve);
    EXPECT_EQ(std::count(many.begin(), many.end(), eve), 1);

    // Emptied, and the element destroyed, with itself among its peers.
    peers.clear();
    EXPECT_TRUE(peers.empty());
    EXPECT_TRUE(cat->getPeers().empty());
    EXPECT_TRUE(dan->getPeers().empty());
    for (Author const &each : {cat, ann, dan})
        peers.push_back(each);
    ann->destroy();
    EXPECT_TRUE(cat->getPeers().empty());
    EXPECT_TRUE(dan->getPeers().empty());
}

TEST_F(ElementSequenceTest, EnsureAtExchangesWithTheEntryThere) {
    Author author = Author::create(model);
    std::vector<Book> books;
    for (int i = 0; i < 3; ++i)
        books.push_back(Book::create(model));
    GenericCollectionInterface &view = *author->getBooksMutable().getGenericInterface();
    for (Book const &book : books)
        view.genericAdd(book);
    view.genericEnsureAt(books[2], 0);
    EXPECT_EQ(booksOf(author), (std::vector<Book>{books[2], books[1], books[0]}));
    auto &sequence = static_cast<GenericSequenceInterface &>(view);
    EXPECT_EQ(sequence.genericIndexOf(books[0]), 2);
    EXPECT_EQ(sequence.genericIndexOf(Author::create(model)), -1);
    EXPECT_THROW(view.genericAdd(Author::create(model)), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_THROW(sequence.genericReplace(Shelf::create(model), 0), Error<messages::CannotAddIncompatibleTypes>);
    EXPECT_FALSE(view.genericContains(Shelf::create(model)));

    // Positions come from outside through this view: past the end they are refused, and
    // nothing changes at either end.
    Book stranger = Book::create(model);
    EXPECT_THROW(sequence.genericAt(3), Error<messages::InvalidValue>);
    EXPECT_THROW(sequence.genericInsert(stranger, 4), Error<messages::InvalidValue>);
    EXPECT_THROW(sequence.genericReplace(stranger, 3), Error<messages::InvalidValue>);
    EXPECT_THROW(sequence.genericRemoveAt(3), Error<messages::InvalidValue>);
    EXPECT_THROW(sequence.genericEnsureAt(stranger, 4), Error<messages::InvalidValue>);
    EXPECT_FALSE(stranger->getWriter());
    EXPECT_EQ(booksOf(author), (std::vector<Book>{books[2], books[1], books[0]}));
    sequence.genericInsert(stranger, 3); // one beyond the last is the end
    EXPECT_EQ(sequence.genericAt(3), stranger);
    EXPECT_EQ(author->getBooks().size(), 4u);
}

// A proxy keeps its place until it resolves, in place, with no change of the model.
TEST_F(ElementSequenceTest, ProxiesResolveInPlace) {
    Author author = Author::create(model);
    Book before = Book::create(model);
    boost::uuids::uuid const id = ElementImpl::generateNewUuid();
    Book proxy = Book::createProxy(model, idOf(id));
    auto &books = author->getBooksMutable();
    books.push_back(before);
    books.push_back(proxy);
    EXPECT_EQ(books.size(), 2u);
    EXPECT_EQ(author->getBooks().getAllValues().size(), 1u);
    EXPECT_EQ(author->getBooks().getAllValuesAndProxies()[1], proxy);

    Book real = Book::create(model, id);
    EXPECT_FALSE(books.contains(real));
    EXPECT_EQ(booksOf(author)[1], proxy) << "the far end does not name the author yet";
    // As a parser sets one end: now the far end confirms, and the proxy resolves.
    real->basicAssociate(author, Book::Impl::writerProperty());
    EXPECT_EQ(booksOf(author)[1], real);
    EXPECT_EQ(books.size(), 2u) << "the proxy is replaced, not joined";
}

// Whoever resolves a proxy hands the element over through the untyped base, with a
// position of its own: a position with no proxy, or an element that cannot stand in the
// list, is refused before anything changes.
TEST_F(ElementSequenceTest, ReplacingAProxyNamesAProxyWithAnElementThatFits) {
    Book book = Book::create(model);
    Author held = Author::create(model);
    Author resolved = Author::create(model);
    auto &coauthors = book->getCoauthorsMutable();
    coauthors.push_back(held);
    coauthors.push_back(Author::createProxy(model, idOf(resolved->getUuid())));
    ReferenceCollection &untyped = coauthors;

    EXPECT_THROW(untyped.replaceProxy(resolved, 2), Error<messages::InvalidValue>);
    EXPECT_THROW(untyped.replaceProxy(resolved, 0), Error<messages::InvalidValue>) << "a live entry is no proxy";
    EXPECT_THROW(untyped.replaceProxy(Book::create(model), 1), Error<messages::CannotAddIncompatibleTypes>);
    Author gone = Author::create(model);
    gone->destroy();
    EXPECT_THROW(untyped.replaceProxy(gone, 1), Error<messages::InvalidValue>);
    ASSERT_EQ(coauthors.size(), 2u);
    EXPECT_EQ(coauthors.rawAt(0), held);
    EXPECT_TRUE(coauthors.rawAt(1)->isProxy());
    EXPECT_EQ(held->getCoauthored().size(), 1u);

    untyped.replaceProxy(resolved, 1);
    EXPECT_EQ(coauthors.rawAt(1), resolved);
    EXPECT_TRUE(resolved->getCoauthored().contains(book)) << "the far end hears of it";
}

// Each access reads through the reflective interface as through the typed one.
TEST_F(ElementSequenceTest, ReflectiveAccessIsAViewOfTheCollection) {
    Author author = Author::create(model);
    Book first = Book::create(model);
    Book second = Book::create(model);
    author->getBooksMutable().push_back(first);
    meta::Property const &books = Author::Impl::booksProperty();
    Value const value = author->getPropertyValue(books, Tag::PUBLIC_ACCESS);
    EXPECT_EQ(value.getFlags(), ValueFlags::Sequence);
    EXPECT_EQ(value.extractEntryValues().size(), 1u);

    ElementSequence<Book> replacement;
    replacement.push_back(second);
    replacement.push_back(first);
    author->setPropertyValue(books, Value(replacement, books), Tag::PUBLIC_ACCESS);
    EXPECT_EQ(booksOf(author), (std::vector<Book>{second, first}));
    EXPECT_EQ(second->getWriter(), author);
    EXPECT_EQ(value.extractEntryValues().size(), 2u) << "a managed value is a view";
}

struct Veto : Listener {
    bool validate(std::shared_ptr<ReportData> const &) { return false; }
};

// Outside a transaction each mutation is one; vetoed, it leaves both ends as they were.
TEST_F(ElementSequenceTest, AMutationOutsideATransactionIsOneOfItsOwn) {
    Author author = Author::create(model);
    Book book = Book::create(model);
    author->getBooksMutable().push_back(book);
    EXPECT_FALSE(model->isTransactionInProgress());
    Book const added = Book::create(model);
    ModelSnapshot const before = snapshot(model);

    Veto veto;
    addListener<ListenerRole::Validator>(model, veto);
    author->getBooksMutable().push_back(added);
    author->getBooksMutable().erase(book);
    EXPECT_EQ(describeDifference(before, snapshot(model)), "");
    EXPECT_EQ(book->getWriter(), author);
    removeListener(model, veto);
}

// A destroyed element takes no change through a collection that its user still holds: an
// entry there would be out of its far end's view, and a child of a dead container neither
// contained nor top level.
TEST_F(ElementSequenceTest, ACollectionOfADestroyedElementTakesNoChange) {
    Shelf shelf = Shelf::create(model);
    Author author = Author::create(model);
    Book child = Book::create(model);
    Book book = Book::create(model);
    book->setTitle(u"k");
    Transaction transaction = model->beginRevertibleTransaction();
    auto &children = shelf->getBooksMutable();
    auto &catalogue = shelf->getCatalogueMutable();
    auto &books = author->getBooksMutable();
    auto &coauthored = author->getCoauthoredMutable();
    shelf->destroy();
    author->destroy();
    EXPECT_THROW(children.push_back(child), Error<messages::InvalidValue>);
    EXPECT_THROW(catalogue.insert(book), Error<messages::InvalidValue>);
    EXPECT_THROW(books.push_back(book), Error<messages::InvalidValue>);
    EXPECT_THROW(coauthored.insert(book), Error<messages::InvalidValue>);
    EXPECT_TRUE(children.empty() && catalogue.empty() && books.empty() && coauthored.empty());
    EXPECT_TRUE(child->isTopLevel());
    EXPECT_FALSE(book->getCatalogued() || book->getWriter());
    EXPECT_TRUE(book->getCoauthors().empty());
    transaction.commit();
    auto const topLevel = model->getTopLevelElements();
    EXPECT_NE(std::find(topLevel.begin(), topLevel.end(), child), topLevel.end());
}

// A roll-back gives back each kind of reference collection exactly: a list's order and its
// proxies in place, a set's and a map's proxies in their side tables, a map's keys, the far
// ends, and the index a long unique list keeps.
TEST_F(ElementSequenceTest, RollBackRestoresListsSetsAndMapsWithTheirProxiesAndFarEnds) {
    Author author = Author::create(model);
    Shelf shelf = Shelf::create(model);
    auto const proxy = [&] { return Book::createProxy(model, idOf(ElementImpl::generateNewUuid())); };
    std::vector<Book> books;
    for (int i = 0; i < 60; ++i) {
        books.push_back(Book::create(model));
        books.back()->setTitle(std::u16string(1, char16_t(u'A' + i))); // its key in the catalogue
        author->getBooksMutable().push_back(books.back());
        books.back()->getCoauthorsMutable().push_back(author);
        if (i < 10) {
            shelf->getRecommendedMutable().insert(books.back());
            shelf->getCatalogueMutable().insert(books.back());
        }
    }
    author->getBooksMutable().push_back(proxy());
    shelf->getRecommendedMutable().insert(proxy());
    shelf->getCatalogueMutable().insert(proxy());
    shelf->getBooksMutable().push_back(books[0]);
    // A list long enough to keep an index of its entries.
    Book hub = Book::create(model);
    std::vector<Author> authors;
    for (int i = 0; i < 60; ++i) {
        authors.push_back(Author::create(model));
        hub->getCoauthorsMutable().push_back(authors.back());
    }
    ModelSnapshot const before = snapshot(model, Identity::Object);
    {
        Transaction transaction = model->beginRevertibleTransaction();
        auto &list = author->getBooksMutable();
        list.swap(list.begin(), list.begin() + 7);
        list.erase(list.begin() + 3, list.begin() + 20);
        list.insert(list.begin(), Book::create(model));
        shelf->getBooksMutable().push_back(books[30]);
        books[40]->destroy();
        author->getCoauthoredMutable().erase(books[50]);
        auto &coauthors = hub->getCoauthorsMutable();
        coauthors.erase(coauthors.begin(), coauthors.begin() + 30);

        shelf->getRecommendedMutable().clear();
        shelf->getRecommendedMutable().insert(proxy());
        author->getCoauthoredMutable().erase(books[3]);
        books[4]->destroy();

        auto &catalogue = shelf->getCatalogueMutable();
        Book const rival = Book::create(model);
        rival->setTitle(u"A");
        catalogue.insert(rival, CollisionResolution::Replace);
        catalogue.erase(books[3]);
        books[5]->setTitle(u"z");
        books[6]->destroy();
        catalogue.clear();
        catalogue.insert(proxy());
        EXPECT_EQ(transaction.rollBack(), TransactionResult::RolledBack);
    }
    EXPECT_EQ(describeDifference(before, snapshot(model, Identity::Object)), "");
    EXPECT_EQ(shelf->getRecommended().unresolvedSize(), 1u);
    EXPECT_EQ(shelf->getCatalogue().unresolvedSize(), 1u);
    EXPECT_EQ(shelf->getCatalogue().at(u"A"), books[0]);
    EXPECT_EQ(shelf->getCatalogue().at(u"F"), books[5]);
    for (Author const &each : authors)
        hub->getCoauthorsMutable().push_back(each);
    EXPECT_EQ(hub->getCoauthors().size(), 60u);
    // The index of the unique list came back with it.
    EXPECT_TRUE(books[50]->getCoauthors().contains(author));
    books[50]->getCoauthorsMutable().push_back(author);
    EXPECT_EQ(books[50]->getCoauthors().size(), 1u);
}

TEST(SaturatedBloomFilter, SaturatedCountersStayAndRepeatedBytesCount) {
    boost::uuids::uuid one{};
    for (std::uint8_t i = 0; i < 16; ++i)
        one.data[i] = i;
    boost::uuids::uuid repeated{}; // every byte 7
    std::fill(std::begin(repeated.data), std::end(repeated.data), std::uint8_t(7));

    SaturatedBloomFilter filter;
    EXPECT_FALSE(filter.contains(one));
    filter.add(repeated); // counter 7 at 16
    filter.add(one);
    filter.remove(repeated);
    EXPECT_TRUE(filter.contains(one)) << "the repeated byte came down once per repetition";
    filter.remove(one);
    EXPECT_FALSE(filter.contains(one));

    for (int i = 0; i < 255; ++i)
        filter.add(one);
    for (int i = 0; i < 300; ++i)
        filter.remove(one);
    EXPECT_TRUE(filter.contains(one));
}

} // namespace
} // namespace kivra::test::library
