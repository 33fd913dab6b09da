// A proxy that names an element made by a transaction still running: reads answer with
// the element, but a roll-back must find the proxy where it was, ready for the next
// element of that UUID; a commit lets the next read keep the element.

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Shelf.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/ElementSequence.hpp>
#include <kivra/Model.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/UnorderedElementSet.hpp>
#include <kivra/Value.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/uuid/uuid_io.hpp>
#include <gtest/gtest.h>

#include <vector>

namespace kivra::test::library {
namespace {

using Tag = ModelElement::Impl::ReflectionPrivateTag;

ProxyId idOf(boost::uuids::uuid const &id, boost::optional<basalt::ustring> const &modelId = boost::none) {
    return ProxyId(u"uuid", basalt::i18n::utf8_to_ustring(boost::uuids::to_string(id)), modelId);
}

/// What a reference member holds, without resolving or resetting anything.
ModelElement storedIn(ModelElement const &holder, meta::Property const &property) {
    return holder->getPropertyValue(property, Tag::NO_PROXY_RESOLVE).getElement();
}

bool holdsProxy(ModelElement const &holder, meta::Property const &property) {
    ModelElement const stored = storedIn(holder, property);
    return stored.get() && stored->isProxy();
}

TEST(ProxiesOfNewElements, ASingleReferenceGetsItsProxyBackOnRollBack) {
    Model const model = Model::create(ModelConstellation::create());
    boost::uuids::uuid const sequelId = ElementImpl::generateNewUuid();
    boost::uuids::uuid const authorId = ElementImpl::generateNewUuid();
    Book const reader = Book::create(model);
    reader->setSequel(Book::createProxy(model, idOf(sequelId)));
    reader->setAuthor(Author::createProxy(model, idOf(authorId)));

    {
        Transaction transaction = model->beginRevertibleTransaction();
        Book const sequel = Book::create(model, sequelId);
        Author const author = Author::create(model, authorId);
        EXPECT_EQ(reader->getSequel(), sequel);
        EXPECT_EQ(reader->getAuthor(), author);
        transaction.rollBack();
    }
    EXPECT_TRUE(holdsProxy(reader, Book::Impl::sequelProperty()));
    EXPECT_TRUE(holdsProxy(reader, Book::Impl::authorProperty()));
    EXPECT_TRUE(reader->getSequel()->isProxy());

    // Made again and kept: the next read stores it. Replaced meanwhile, the element the
    // proxy read as lets go of its far end as a stored one would.
    Transaction transaction = model->beginRevertibleTransaction();
    Book const sequel = Book::create(model, sequelId);
    Author const author = Author::create(model, authorId);
    author->setFavourite(Book::createProxy(model, idOf(reader->getUuid())));
    EXPECT_EQ(reader->getSequel(), sequel);
    EXPECT_EQ(author->getFavourite(), reader);
    Author const other = Author::create(model);
    reader->setAuthor(other);
    transaction.commit();
    EXPECT_EQ(reader->getSequel(), sequel);
    EXPECT_EQ(storedIn(reader, Book::Impl::sequelProperty()), sequel);
    EXPECT_FALSE(author->getFavourite().get());
    EXPECT_EQ(other->getFavourite(), reader);
}

// The book's coauthors hold a proxy of an author made in the transaction, whose own set
// names the book by a proxy too: each side's read asks the other, and neither may keep
// the new author.
TEST(ProxiesOfNewElements, AListAndItsFarEndGetTheirProxiesBackOnRollBack) {
    Model const model = Model::create(ModelConstellation::create());
    boost::uuids::uuid const authorId = ElementImpl::generateNewUuid();
    Book const book = Book::create(model);
    Author const kept = Author::create(model);
    book->getCoauthorsMutable().push_back(Author::createProxy(model, idOf(authorId)));
    book->getCoauthorsMutable().push_back(kept);
    auto const makeAuthor = [&] {
        Author const author = Author::create(model, authorId);
        author->getCoauthoredMutable().insert(Book::createProxy(model, idOf(book->getUuid())));
        return author;
    };
    auto const entriesOf = [&] {
        std::vector<Author> entries;
        for (Author const &each : book->getCoauthors())
            entries.push_back(each);
        return entries;
    };
    auto const rawFirst = [&] { return book->getCoauthors().rawAt(0); };

    for (bool readFarEndFirst : {true, false}) {
        SCOPED_TRACE(readFarEndFirst);
        Transaction transaction = model->beginRevertibleTransaction();
        Author const author = makeAuthor();
        if (readFarEndFirst) {
            EXPECT_TRUE(author->getCoauthored().contains(book));
        }
        EXPECT_EQ(entriesOf(), (std::vector<Author>{author, kept}));
        EXPECT_EQ(book->getCoauthors().size(), 2u);
        transaction.rollBack();
        EXPECT_TRUE(rawFirst()->isProxy());
        EXPECT_EQ(book->getCoauthors().rawAt(1), kept);
    }

    // Taking the entry out by the element it reads as, then rolling back, brings the
    // proxy back too.
    {
        Transaction transaction = model->beginRevertibleTransaction();
        Author const author = makeAuthor();
        book->getCoauthorsMutable().erase(author);
        EXPECT_EQ(entriesOf(), std::vector<Author>{kept});
        transaction.rollBack();
        EXPECT_EQ(book->getCoauthors().size(), 2u);
        EXPECT_TRUE(rawFirst()->isProxy());
    }

    Transaction transaction = model->beginRevertibleTransaction();
    Author const author = makeAuthor();
    transaction.commit();
    EXPECT_EQ(entriesOf(), (std::vector<Author>{author, kept}));
    EXPECT_EQ(rawFirst(), author);
    EXPECT_TRUE(book->getCoauthors().contains(author));
}

// A set keeps its proxies aside until they resolve; while the element is new it shows
// the set as it was, without the element, and resolves on the first read after a commit.
TEST(ProxiesOfNewElements, ASetKeepsItsProxyAsideUntilTheCommit) {
    Model const model = Model::create(ModelConstellation::create());
    boost::uuids::uuid const bookId = ElementImpl::generateNewUuid();
    Shelf const shelf = Shelf::create(model);
    Book const present = Book::create(model);
    shelf->getRecommendedMutable().insert(present);
    shelf->getRecommendedMutable().insert(Book::createProxy(model, idOf(bookId)));

    {
        Transaction transaction = model->beginRevertibleTransaction();
        Book const book = Book::create(model, bookId);
        auto const &set = shelf->getRecommended();
        EXPECT_EQ(set.size(), 1u);
        EXPECT_FALSE(set.contains(book));
        EXPECT_EQ(set.getAllValues(), std::vector<ModelElement>{present});
        EXPECT_EQ(set.unresolvedSize(), 1u);
        transaction.rollBack();
    }
    EXPECT_EQ(shelf->getRecommended().size(), 1u);
    EXPECT_EQ(shelf->getRecommended().unresolvedSize(), 1u);

    Transaction transaction = model->beginRevertibleTransaction();
    Book const book = Book::create(model, bookId);
    transaction.commit();
    auto const &set = shelf->getRecommended();
    EXPECT_EQ(set.size(), 2u);
    EXPECT_TRUE(set.contains(book));
    EXPECT_EQ(set.unresolvedSize(), 0u);
}

// The proxy names an element of another model of the constellation, made and taken away
// by that model's own transaction: the reader's model knows nothing of it.
TEST(ProxiesOfNewElements, AReferenceIntoAnotherModelGetsItsProxyBackOnRollBack) {
    ModelConstellation const constellation = ModelConstellation::create();
    Model const a = Model::create(constellation);
    Model const b = Model::create(constellation);
    boost::uuids::uuid const sequelId = ElementImpl::generateNewUuid();
    ProxyId const far = idOf(sequelId, boost::optional<basalt::ustring>(b->getModelURI()));
    Transaction build = a->beginTransaction();
    Book const reader = Book::create(a);
    reader->setSequel(Book::createProxy(a, far));
    Shelf const shelf = Shelf::create(a);
    shelf->getRecommendedMutable().insert(Book::createProxy(a, far));
    build.commit();

    {
        Transaction transaction = b->beginRevertibleTransaction();
        Book const sequel = Book::create(b, sequelId);
        EXPECT_EQ(reader->getSequel(), sequel);
        EXPECT_EQ(shelf->getRecommended().size(), 0u);
        transaction.rollBack();
    }
    EXPECT_TRUE(holdsProxy(reader, Book::Impl::sequelProperty()));
    EXPECT_TRUE(reader->getSequel()->isProxy());

    Transaction again = b->beginRevertibleTransaction();
    Book const sequel = Book::create(b, sequelId);
    again.commit();
    EXPECT_EQ(reader->getSequel(), sequel);
    EXPECT_EQ(storedIn(reader, Book::Impl::sequelProperty()), sequel);
    EXPECT_TRUE(shelf->getRecommended().contains(sequel));

    // Destroyed by a transaction that rolls back, the element reads as none meanwhile and
    // is still held when it comes back.
    {
        Transaction transaction = b->beginRevertibleTransaction();
        sequel->destroy();
        EXPECT_FALSE(reader->getSequel().get());
        transaction.rollBack();
    }
    EXPECT_EQ(reader->getSequel(), sequel);
    Transaction destruction = b->beginRevertibleTransaction();
    sequel->destroy();
    destruction.commit();
    EXPECT_FALSE(reader->getSequel().get());
    EXPECT_FALSE(storedIn(reader, Book::Impl::sequelProperty()).get());
}

} // namespace
} // namespace kivra::test::library
