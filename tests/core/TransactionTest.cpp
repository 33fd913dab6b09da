#include "ModelSnapshot.hpp"
#include "Probes.hpp"

#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/AbstractPrimitiveCollection.hpp>
#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/PrimitiveCollection.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/StringToStringMap.hpp>
#include <basalt/except/Exception.hpp>
#include <kivra/TransactionFactory.hpp>
#include <kivra/meta/ExtensionPrototype.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/TransactionOrigin.hpp>

#include <gtest/gtest.h>

#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <utility>

namespace kivra::test::library {
namespace {

using R = TransactionResult;

class TransactionTest : public ::testing::Test {
protected:
    Model model = Model::createTransientModel();
};

TEST_F(TransactionTest, VotesOfNestedAndOuterHandles) {
    {
        Transaction outer = model->beginTransaction();
        Transaction inner = model->beginTransaction();
        EXPECT_EQ(inner.commit(), R::NotFinished);
        EXPECT_TRUE(model->isTransactionInProgress());
        EXPECT_EQ(outer.commit(), R::Committed);
        EXPECT_FALSE(model->isTransactionInProgress());
        EXPECT_EQ(outer.commit(), R::NotFinished); // a second commit
    }
    {
        // The outer handle first: the commit happens at the last vote.
        Transaction outer = model->beginTransaction();
        Transaction inner = model->beginTransaction();
        EXPECT_EQ(outer.commit(), R::NotFinished);
        EXPECT_EQ(inner.commit(), R::Committed);
    }
    {
        Transaction outer = model->beginRevertibleTransaction();
        Book::create(model);
        Transaction inner = model->beginTransaction();
        EXPECT_EQ(inner.rollBack(), R::NotFinished);
        EXPECT_TRUE(outer.isRollBackOnly());
        EXPECT_EQ(outer.commit(), R::RolledBack);
        EXPECT_EQ(model->elementCount(), 0u);
    }
    {
        // A nested handle dropped without a commit is a vote to roll back.
        Transaction outer = model->beginRevertibleTransaction();
        Book::create(model);
        { Transaction dropped = model->beginTransaction(); }
        EXPECT_EQ(outer.commit(), R::RolledBack);
    }
    Book book = Book::create(model);
    book->setTitle(u"Dune");
    {
        // So is a dropped outer handle; the first old value comes back.
        Transaction dropped = model->beginRevertibleTransaction();
        book->setTitle(u"Emma");
        book->setTitle(u"Ulysses");
    }
    EXPECT_EQ(book->getTitle(), u"Dune");
    EXPECT_FALSE(model->isTransactionInProgress());
}

TEST_F(TransactionTest, ShallowTransactionsCannotRevert) {
    Transaction empty = model->beginTransaction();
    EXPECT_EQ(empty.rollBack(), R::NotFinished);

    // Nobody listens and it keeps no old values: nothing is even recorded.
    Transaction unobserved = model->beginTransaction();
    Book::create(model);
    EXPECT_EQ(unobserved.rollBack(), R::NotFinished);
    EXPECT_EQ(model->elementCount(), 1u);

    Transaction observed = model->beginTransaction();
    int firstChanges = 0;
    observed.addFirstChangeCallback([&] { ++firstChanges; });
    Book::create(model);
    Book::create(model);
    EXPECT_EQ(firstChanges, 1);
    EXPECT_EQ(observed.rollBack(), R::CannotRevert);
    EXPECT_EQ(model->elementCount(), 3u); // the changes stay
}

TEST_F(TransactionTest, EveryChangeCountsAsALevelWhetherItIsRecordedOrNot) {
    // A change that leaves nothing to record is stored without a frame; the ordinals that
    // later transactions carry must not tell it apart from a framed one.
    struct Committed : Listener {
        void transactionCommitted(std::shared_ptr<ReportData> const &) {}
    } committed;
    Book before = Book::create(model);
    auto levelsOf = [&](auto change) {
        std::int32_t const first = model->beginTransaction(false).getOrigin().getTransactionOrdinal();
        {
            Transaction transaction = model->beginTransaction(false);
            change();
            transaction.commit();
        }
        return model->beginTransaction(false).getOrigin().getTransactionOrdinal() - first - 2;
    };
    auto threeChanges = [](Book const &book, basalt::ustring const &first, basalt::ustring const &second) {
        book->setSubtitle(first);
        book->setSubtitle(second);
        book->setSubtitle(second); // no change, no level
        book->setSubtitle(boost::none);
    };
    EXPECT_EQ(levelsOf([&] { threeChanges(before, u"A", u"B"); }), 3); // nothing recorded
    addListener<ListenerRole::Observer>(model, committed);
    EXPECT_EQ(levelsOf([&] { threeChanges(before, u"C", u"D"); }), 3); // recorded
    EXPECT_EQ(levelsOf([&] { threeChanges(Book::create(model), u"E", u"F"); }), 3); // made here
    removeListener(model, committed);
}

TEST_F(TransactionTest, ASetterIsAPartyOfItsOwnOnTheTransaction) {
    struct Committed : Listener {
        int count = 0;
        void transactionCommitted(std::shared_ptr<ReportData> const &) { ++count; }
    } committed;
    Book book = Book::create(model);
    addListener<ListenerRole::Observer>(model, committed);
    {
        // The outer handle votes from the first-change callback, while the setter runs:
        // the setter is then the last party, and its end is the transaction's.
        Transaction outer = model->beginTransaction();
        outer.addFirstChangeCallback([&] { EXPECT_EQ(outer.commit(), R::NotFinished); });
        book->setTitle(u"Emma");
        EXPECT_FALSE(model->isTransactionInProgress());
        EXPECT_EQ(committed.count, 1);
    }
    {
        // A callback that fails leaves a vote for roll-back and no party behind.
        Transaction outer = model->beginRevertibleTransaction();
        bool fail = true;
        outer.addFirstChangeCallback([&] {
            if (std::exchange(fail, false))
                throw std::runtime_error("refused");
        });
        EXPECT_THROW(book->setTitle(u"Dune"), std::runtime_error);
        EXPECT_TRUE(outer.isRollBackOnly());
        book->setTitle(u"Ulysses");
        EXPECT_EQ(outer.commit(), R::RolledBack);
        EXPECT_FALSE(model->isTransactionInProgress());
        EXPECT_EQ(book->getTitle(), u"Emma");
    }
    removeListener(model, committed);
}

// The roll-back gives back the destroyed book as the same object, in its container, and
// forgets the element made with its UUID, one made and destroyed, and one made anew, whose
// UUID is free again.
TEST_F(TransactionTest, RollBackRestoresIdentityContainmentAndBothEnds) {
    Shelf shelf = Shelf::create(model);
    Shelf other = Shelf::create(model);
    Book book = Book::create(model);
    Author author = Author::create(model);
    Book loose = Book::create(model);
    shelf->setFeatured(book);
    book->setAuthor(author);
    ModelElement::Impl *const bookObject = book.get();
    auto const bookId = book->getUuid();
    ModelSnapshot const before = snapshot(model, Identity::Object);

    Transaction transaction = model->beginRevertibleTransaction();
    book->destroy();
    EXPECT_TRUE(model->isDestroyedInCurrentTransaction(bookId));
    Book namesake = Book::create(model, bookId);
    shelf->setFeatured(namesake);
    Book created = Book::create(model);
    auto const createdId = created->getUuid();
    Book flash = Book::create(model);
    flash->destroy();
    EXPECT_TRUE(model->isDestroyedInCurrentTransaction(flash->getUuid())) << "made here, and destroyed";
    other->setFeatured(loose);     // a top-level element made contained
    author->setFavourite(created); // a far end moved to a new element
    EXPECT_EQ(transaction.rollBack(), R::RolledBack);

    // By object, the picture tells the two books of one UUID apart: in the table, the
    // container and the far end. Handles taken before are valid again.
    EXPECT_EQ(describeDifference(before, snapshot(model, Identity::Object)), "");
    EXPECT_TRUE(book);
    EXPECT_EQ(model->findElement(bookId).get(), bookObject);
    EXPECT_FALSE(namesake);
    EXPECT_FALSE(created);
    EXPECT_FALSE(flash);
    EXPECT_NO_THROW(Book::create(model, createdId));
}

TEST_F(TransactionTest, OriginsAndOrdinals) {
    model->trackLastSeenTransactionOrdinals();
    Transaction first = model->beginTransaction();
    meta::TransactionOrigin const origin = first.getOrigin();
    EXPECT_EQ(origin.getModel(), model->getUuid());
    EXPECT_EQ(origin.getLanguage(), meta::Language::CPlusPlus);
    Transaction nested = model->beginTransaction();
    EXPECT_EQ(nested.getOrigin(), origin); // a nested level carries its parent's origin
    nested.commit();
    first.commit();

    auto const factory = origin.getTransactionFactory();
    EXPECT_FALSE(model->isTransactionNew(factory, origin.getTransactionOrdinal()));
    EXPECT_TRUE(model->isTransactionNew(factory, origin.getTransactionOrdinal() + 5));
    EXPECT_TRUE(model->isTransactionNew(ElementImpl::generateNewUuid(), 0));
    Transaction second = model->beginTransaction();
    EXPECT_GT(second.getOrigin().getTransactionOrdinal(), origin.getTransactionOrdinal());
    EXPECT_NE(second.getOrigin().getTransactionId(), origin.getTransactionId());
}

// Random work on the sample metamodel, drawn from a seed: creations, every setter of the
// generated classes from either end of an association, moves, destructions, UUIDs used
// again, the whole content destroyed, nested levels that commit, roll back or are left by
// an exception, operations that fail and are caught, and on demand the values of the
// extensions that `declareExtensions` makes. Elements are picked in UUID
// order, so that the same seed on models of the same content does the same work.
struct WorkOptions {
    // A nested level may end without a commit, which dooms the whole transaction.
    bool nestedRollBacks = true;
    // Work on the extensions of `declareExtensions` too.
    bool extensions = false;
};

// A number, a set of strings and an element, all of books.
std::vector<basalt::ustring> const bookExtensions{u"rank", u"tags", u"patron"};

void declareExtensions(Model const &model) {
    auto const named = [](char16_t const *name, basalt::ustring const &type) {
        return meta::ExtensionPrototype().setName(name).setTypeName(type);
    };
    model->extendMetaclass(Book::metaClass(), named(u"rank", u"Integer"),
                           Value(meta::internal::getPrimitiveTypeFromMetaRegistry(u"Integer"), std::int32_t(0)));
    model->extendMetaclass(Book::metaClass(), named(u"tags", u"String").setUpper(5), boost::none);
    model->extendMetaclass(Book::metaClass(), named(u"patron", Author::metaClass()->getQualifiedName()), boost::none);
}

class RandomWork {
public:
    RandomWork(Model model, unsigned seed, WorkOptions options = {})
        : model_(std::move(model)), random_(seed), options_(options) {}

    void run(int steps) {
        try {
            for (int i = 0; i < steps; ++i)
                step(0);
        } catch (std::exception const &error) {
            ADD_FAILURE() << "raised \"" << error.what() << "\" after: " << journal_;
        }
    }

    /// The operations done so far, for the message of a failing test.
    std::string const &journal() const { return journal_; }

private:
    template <class H> H pick() {
        std::vector<H> candidates;
        for (ModelElement const &element : model_->getAllElements())
            if (auto *impl = dynamic_cast<typename H::Impl *>(element.get()))
                candidates.push_back(H::fromImpl(impl));
        if (candidates.empty())
            return {};
        std::sort(candidates.begin(), candidates.end(),
                  [](H const &a, H const &b) { return a->getUuid() < b->getUuid(); });
        return candidates[random_() % candidates.size()];
    }
    // Sometimes nothing: clearing a reference is a change too.
    template <class H> H pickOrNone() { return random_() % 4 ? pick<H>() : H(); }
    bool chance(unsigned n) { return random_() % n == 0; }
    basalt::ustring letter() { return basalt::ustring(1, char16_t(u'a' + random_() % 26)); }
    boost::optional<basalt::ustring> maybeLetter() { return chance(3) ? boost::none : boost::make_optional(letter()); }
    boost::uuids::uuid nextId() {
        // Now and then the UUID of an element destroyed before.
        if (!graveyard_.empty() && chance(3)) {
            auto const at = graveyard_.begin() + random_() % graveyard_.size();
            boost::uuids::uuid const id = *at;
            graveyard_.erase(at);
            return id;
        }
        boost::uuids::uuid id{};
        for (auto &byte : id.data)
            byte = static_cast<std::uint8_t>(random_());
        return id;
    }
    void note(char const *what) { (journal_ += what) += ' '; }

    ModelElement create(boost::uuids::uuid const &id) {
        switch (random_() % 4) {
        case 0: note("create-book"); return Book::create(model_, id);
        case 1: note("create-novel"); return Novel::create(model_, id);
        case 2: note("create-shelf"); return Shelf::create(model_, id);
        default: note("create-author"); return Author::create(model_, id);
        }
    }
    void createOrConflict() {
        ModelElement const taken = chance(8) ? pick<ModelElement>() : ModelElement();
        boost::uuids::uuid const id = taken.get() ? taken->getUuid() : nextId();
        if (!model_->findElement(id)) {
            create(id);
            return;
        }
        note("create-taken-uuid");
        EXPECT_THROW(Book::create(model_, id), Error<messages::UUIDConflict>);
    }
    // Destroys `victim`, or all when there is none, and frees their UUIDs.
    void destroy(ModelElement const &victim) {
        std::vector<ModelElement> const before = model_->getAllElements();
        if (victim.get())
            victim->destroy();
        else
            model_->destroyAllContents();
        std::vector<boost::uuids::uuid> freed;
        for (ModelElement const &element : before)
            if (!element)
                freed.push_back(element->getUuid());
        std::sort(freed.begin(), freed.end()); // not in the table's order: another model has another
        graveyard_.insert(graveyard_.end(), freed.begin(), freed.end());
    }

    void step(int depth) {
        switch (random_() % 29) {
        case 0:
        case 1: createOrConflict(); break;
        case 2:
            if (Book book = pick<Book>(); book.get())
                note("title"), book->setTitle(letter());
            break;
        case 3:
            // Now and then every book at once: many elements whose one change is a number.
            if (chance(4)) {
                note("pages-all");
                std::vector<ModelElement> books = model_->getAllElements();
                std::sort(books.begin(), books.end(),
                          [](ModelElement const &a, ModelElement const &b) { return a->getUuid() < b->getUuid(); });
                for (ModelElement const &element : books)
                    if (auto *book = dynamic_cast<Book::Impl *>(element.get()))
                        book->setPages(std::int32_t(random_() % 4));
            } else if (Book book = pick<Book>(); book.get()) {
                note("pages"), book->setPages(std::int32_t(random_() % 4));
            }
            break;
        case 4:
            if (Book book = pick<Book>(); book.get())
                note("subtitle"), book->setSubtitle(maybeLetter());
            if (Novel novel = pick<Novel>(); novel.get())
                note("genre"), novel->setGenre(maybeLetter());
            break;
        case 5:
            if (Book book = pick<Book>(); book.get())
                note("isbn"), book->setIsbn(chance(3) ? boost::none : boost::make_optional(std::string("978")));
            if (Shelf shelf = pick<Shelf>(); shelf.get())
                note("label"), shelf->setLabel(letter());
            if (Author author = pick<Author>(); author.get())
                note("name"), author->setName(letter());
            break;
        case 6:
            if (Book book = pick<Book>(); book.get())
                note("author"), book->setAuthor(pickOrNone<Author>());
            break;
        case 7:
            if (Author author = pick<Author>(); author.get())
                note("favourite"), author->setFavourite(pickOrNone<Book>());
            break;
        case 8:
            if (Book book = pick<Book>(); book.get())
                note("sequel"), book->setSequel(pickOrNone<Book>());
            break;
        case 9:
            if (Shelf shelf = pick<Shelf>(); shelf.get())
                note("featured"), shelf->setFeatured(pickOrNone<Book>());
            break;
        case 10:
            if (Book book = pick<Book>(); book.get())
                note("shelf"), book->setShelf(pickOrNone<Shelf>());
            break;
        case 11:
        case 12:
            containment();
            break;
        case 13:
        case 14:
            if (chance(2))
                if (ModelElement victim = pick<ModelElement>(); victim.get())
                    note("destroy"), destroy(victim);
            break;
        case 15:
            // An element destroyed and another made with its UUID at once.
            if (ModelElement victim = pick<ModelElement>(); victim.get()) {
                note("destroy");
                boost::uuids::uuid const id = victim->getUuid();
                destroy(victim);
                std::erase(graveyard_, id);
                ModelElement const namesake = create(id);
                if (auto *book = dynamic_cast<Book::Impl *>(namesake.get()))
                    if (Shelf shelf = pick<Shelf>(); shelf.get())
                        note("featured"), shelf->setFeatured(Book::fromImpl(book));
            }
            break;
        case 16:
            if (chance(10)) {
                note("destroy-all"), destroy(ModelElement());
            }
            break;
        case 17:
        case 18:
            if (depth < 3)
                nested(depth + 1);
            break;
        case 19:
            if (Author author = pick<Author>(); author.get())
                listWork(author->getBooksMutable(), pick<Book>(), "books");
            break;
        case 20:
            if (Book book = pick<Book>(); book.get())
                note("writer"), book->setWriter(pickOrNone<Author>());
            break;
        case 21:
            if (Shelf shelf = pick<Shelf>(); shelf.get())
                listWork(shelf->getBooksMutable(), pick<Book>(), "shelf-books");
            break;
        case 22:
            if (Book book = pick<Book>(); book.get())
                listWork(book->getCoauthorsMutable(), pick<Author>(), "coauthors");
            break;
        case 23:
            chapters();
            break;
        case 24:
            if (Author author = pick<Author>(); author.get())
                setWork(author->getCoauthoredMutable(), pick<Book>(), "coauthored");
            if (Shelf shelf = pick<Shelf>(); shelf.get())
                setWork(shelf->getRecommendedMutable(), pick<Book>(), "recommended");
            break;
        case 25:
            if (options_.extensions) {
                extensionWork();
                break;
            }
            [[fallthrough]];
        case 26:
            if (chance(2)) {
                primitiveWork();
                break;
            }
            [[fallthrough]];
        default:
            if (depth > 0 || chance(2))
                step(depth); // more weight on the setters
            break;
        }
    }

    // Every kind of primitive collection: an ordered list with repeats, sorted and hashed
    // sets, a keyed map of data-type values and the map of strings.
    void primitiveWork() {
        switch (random_() % 6) {
        case 0:
            if (Author author = pick<Author>(); author.get()) {
                PrimitiveSequence<std::int32_t> &ratings = author->getRatingsMutable();
                std::int32_t const rating = std::int32_t(random_() % 3);
                switch (random_() % 5) {
                case 0: note("rating-push"), ratings.push_back(rating); break;
                case 1: note("rating-insert"), ratings.insert(ratings.size() ? random_() % (ratings.size() + 1) : 0, rating); break;
                case 2:
                    if (ratings.size())
                        note("rating-replace"), ratings.replace(random_() % ratings.size(), rating);
                    break;
                case 3: note("rating-remove"), ratings.remove(rating); break;
                default: note("ratings-assign"), ratings.assign({rating, rating, 7}); break;
                }
            }
            break;
        case 1:
            if (Book book = pick<Book>(); book.get()) {
                PrimitiveSequence<basalt::ustring> &tags = book->getTagsMutable();
                if (chance(3) && tags.size())
                    note("tag-erase"), tags.erase(random_() % tags.size());
                else
                    note("tag"), tags.push_back(letter());
            }
            break;
        case 2:
            if (Author author = pick<Author>(); author.get()) {
                std::string const pseudonym(1, char('a' + random_() % 4));
                if (chance(2))
                    note("pseudonym"), author->getPseudonymsMutable().insert(pseudonym);
                else
                    note("pseudonym-erase"), author->getPseudonymsMutable().erase(pseudonym);
                if (chance(3))
                    note("visit"), author->getVisitsMutable().insert(nextId());
                else if (chance(3))
                    note("visits-clear"), author->getVisitsMutable().clear();
            }
            break;
        case 3:
            if (Shelf shelf = pick<Shelf>(); shelf.get()) {
                std::int32_t const code = std::int32_t(random_() % 5);
                if (chance(2))
                    note("code"), shelf->getCodesMutable().insert(code);
                else
                    note("code-erase"), shelf->getCodesMutable().erase(code);
            }
            break;
        case 4:
            if (Shelf shelf = pick<Shelf>(); shelf.get()) {
                meta::VersionInfo const source(letter(), letter());
                switch (random_() % 3) {
                case 0: note("source-add"), shelf->getSourcesMutable().add(source); break;
                case 1: note("source-put"), shelf->getSourcesMutable().put(source); break;
                default: note("source-remove"), shelf->getSourcesMutable().remove(source); break;
                }
            }
            break;
        default:
            if (Shelf shelf = pick<Shelf>(); shelf.get()) {
                StringToStringMap &labels = shelf->getLabelsMutable();
                basalt::ustring const key = letter();
                switch (random_() % 3) {
                case 0: note("label-put"), labels.insert(key, letter(), CollisionResolution::Replace); break;
                case 1: note("label-erase"), labels.erase(key); break;
                default: note("labels-clear"), labels.clear(); break;
                }
            }
            break;
        }
    }

    void extensionWork() {
        Book book = pick<Book>();
        if (!book.get())
            return;
        switch (random_() % 3) {
        case 0:
            note("rank");
            book->setExtension(u"rank", Value(meta::internal::getPrimitiveTypeFromMetaRegistry(u"Integer"),
                                              std::int32_t(random_() % 3)));
            break;
        case 1: {
            Value const tags = book->getExtension(u"tags");
            auto &entries = *static_cast<AbstractPrimitiveCollection *>(const_cast<void *>(tags.getPayload()));
            Value const tag(meta::internal::getPrimitiveTypeFromMetaRegistry(u"String"), basalt::ustring(letter()));
            if (chance(2))
                note("tag"), entries.genericAdd(tag);
            else
                note("untag"), entries.genericRemove(tag);
            break;
        }
        default: note("patron"), book->setExtension(u"patron", Value(Author::metaClass(), pickOrNone<Author>())); break;
        }
    }

    // A book made the appendix of another, from either end; a cycle must be refused
    // before anything changes.
    void containment() {
        Book outer = pick<Book>();
        Book inner = pickOrNone<Book>();
        if (!outer.get())
            return;
        bool const fromChild = chance(2);
        if (inner.get() && holds(inner, outer)) {
            note(fromChild ? "appendix-of-cycle" : "appendix-cycle");
            if (fromChild)
                EXPECT_THROW(inner->setAppendixOf(outer), Error<messages::CircularContainment>);
            else
                EXPECT_THROW(outer->setAppendix(inner), Error<messages::CircularContainment>);
        } else if (fromChild && inner.get()) {
            note("appendix-of"), inner->setAppendixOf(chance(4) ? Book() : outer);
        } else {
            note("appendix"), outer->setAppendix(inner);
        }
    }
    // The list operations on either kind of list; children that would contain their
    // container are refused before anything changes.
    template <class V> void listWork(ElementSequence<V> &list, V const &element, char const *what) {
        note(what);
        std::size_t const size = list.size();
        switch (random_() % 6) {
        case 0: note("push"), list.push_back(element); break;
        case 1: note("insert"), list.insert(list.begin() + std::ptrdiff_t(size ? random_() % (size + 1) : 0), element); break;
        case 2:
            if (size)
                note("erase"), list.erase(list.begin() + std::ptrdiff_t(random_() % size));
            break;
        case 3:
            if (size > 1)
                note("swap"), list.swap(list.begin(), list.begin() + std::ptrdiff_t(size - 1));
            break;
        case 4: note("erase-element"), list.erase(element); break;
        default: note("clear"), list.clear(); break;
        }
    }
    template <class V> void setWork(UnorderedElementSet<V> &set, V const &element, char const *what) {
        note(what);
        switch (random_() % 3) {
        case 0: note("insert"), set.insert(element); break;
        case 1: note("erase"), set.erase(element); break;
        default: note("clear"), set.clear(); break;
        }
    }
    void chapters() {
        Book outer = pick<Book>();
        Book inner = pick<Book>();
        if (!outer.get() || !inner.get())
            return;
        bool const fromChild = chance(2);
        if (holds(inner, outer)) {
            note("chapter-cycle");
            if (fromChild)
                EXPECT_THROW(inner->setChapterOf(outer), Error<messages::CircularContainment>);
            else
                EXPECT_THROW(outer->getChaptersMutable().push_back(inner), Error<messages::CircularContainment>);
        } else if (fromChild) {
            note("chapter-of"), inner->setChapterOf(chance(4) ? Book() : outer);
        } else {
            listWork(outer->getChaptersMutable(), inner, "chapters");
        }
    }
    static bool holds(Book const &outer, Book const &inner) {
        for (ModelElement::Impl const *at = inner.get(); at; at = at->containerImpl())
            if (at == outer.get())
                return true;
        return false;
    }

    void nested(int depth) {
        note("[");
        std::uint32_t const ending = options_.nestedRollBacks ? random_() % 6 : 0;
        bool const outermost = !model_->isTransactionInProgress();
        try {
            Transaction level = model_->beginTransaction();
            for (int i = 1 + random_() % 4; i > 0; --i)
                step(depth);
            switch (ending) {
            case 0:
            case 1:
            case 2: EXPECT_EQ(level.commit(), outermost ? R::Committed : R::NotFinished); break;
            case 3: EXPECT_EQ(level.rollBack(), R::NotFinished); break;
            case 4: break; // dropped: a vote to roll back
            default: throw std::runtime_error("left by an exception");
            }
        } catch (std::runtime_error const &) {
        }
        note(ending == 0 || ending == 1 || ending == 2 ? "]" : "]rolled-back");
    }

    Model model_;
    std::mt19937 random_;
    WorkOptions options_;
    std::vector<boost::uuids::uuid> graveyard_;
    std::string journal_;
};

// How many sequences to run: a few hundred by default, many more on demand for a soak
// (KIVRA_SOAK_SEQUENCES=10000).
unsigned sequences(unsigned byDefault) {
    char const *const wanted = std::getenv("KIVRA_SOAK_SEQUENCES");
    return wanted && std::atoi(wanted) > 0 ? unsigned(std::atoi(wanted)) : byDefault;
}

// Work that commits whatever it does, also where no outer transaction is open.
constexpr WorkOptions committing{.nestedRollBacks = false};

// A listener that keeps old values: it alone makes a transaction deep. Told of a
// roll-back, it checks that each old value in the report is the value from before the
// transaction.
struct DeepObserver : Listener {
    explicit DeepObserver(ModelSnapshot const &before) : before(before) {}

    void transactionCommitted(std::shared_ptr<ReportData> const &) {}
    void transactionCanceled(bool wasDeep, std::shared_ptr<ReportData> const &report) {
        canceled.push_back(wasDeep);
        for (auto const *elements : {&report->getModified(), &report->getDestroyed()})
            for (ModelElement const &element : *elements)
                checkOldValues(*report, element);
    }

    void checkOldValues(ReportData const &report, ModelElement const &element) {
        auto const found = before.elements.find(element->getUuid());
        ASSERT_NE(found, before.elements.end()) << "a reported element that was not there";
        ASSERT_EQ(found->second.object, reinterpret_cast<std::uintptr_t>(element.get())) << "another object";
        for (std::uint64_t index = 1;; ++index) {
            meta::Property const property = element->getPropertyByIndex(index);
            if (!property)
                break;
            if (!report.isChanged(element, property) || !isPublic(element, property))
                continue;
            // What a listener raises is swallowed: it has to be caught here to be seen.
            try {
                EXPECT_EQ(describeValue(report.getOldValue(element, property), Identity::Object),
                          found->second.values.at(index - 1))
                    << element->getUuid() << " property " << index;
            } catch (std::exception const &error) {
                ADD_FAILURE() << "old value of property " << index << " raised: " << error.what();
            }
        }
    }

    // Reports speak to public callers: what they cannot read has no old value there.
    static bool isPublic(ModelElement const &element, meta::Property const &property) {
        try {
            element->getPropertyValue(property, ModelElement::Impl::ReflectionPrivateTag::PUBLIC_ACCESS);
            return true;
        } catch (Error<messages::NoSuchProperty> const &) {
            return false;
        }
    }

    ModelSnapshot const &before;
    std::vector<bool> canceled; // whether each cancelled transaction was deep
};

TEST(TransactionRollBack, RandomWorkIsUndoneExactly) {
    unsigned const count = sequences(300);
    for (unsigned seed = 1; seed <= count; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        // Every third sequence works on extensions too.
        bool const extensions = seed % 3 == 0;
        WorkOptions const committingHere{.nestedRollBacks = false, .extensions = extensions};
        auto const picture = [&](Model const &of, Identity identity = Identity::Uuid) {
            return snapshot(of, identity, extensions ? bookExtensions : std::vector<basalt::ustring>());
        };
        Model model = Model::createTransientModel();
        if (extensions)
            declareExtensions(model);
        RandomWork(model, seed * 7919, committingHere).run(30); // some state to start from
        ModelSnapshot const before = picture(model, Identity::Object);
        std::vector<ModelElement> const held = model->getAllElements();

        // Every other sequence runs in a transaction that only a listener makes deep.
        bool const byListener = seed % 2 == 0;
        DeepObserver *observer = nullptr;
        if (byListener) {
            auto owned = std::make_unique<DeepObserver>(before);
            observer = owned.get();
            addOwnedListener<ListenerRole::Observer>(model, std::move(owned));
        }
        RandomWork work(model, seed, {.extensions = extensions});
        bool changed = false;
        {
            Transaction transaction = model->beginTransaction(/*revertible=*/!byListener);
            transaction.addFirstChangeCallback([&] { changed = true; });
            work.run(60);
            // A roll-back that finds nothing to put back says that nothing ended.
            ASSERT_EQ(transaction.rollBack(), changed ? R::RolledBack : R::NotFinished) << work.journal();
        }
        ASSERT_EQ(describeDifference(before, picture(model, Identity::Object)), "") << work.journal();
        if (observer) {
            EXPECT_EQ(observer->canceled, changed ? std::vector<bool>{true} : std::vector<bool>{});
            removeListener(model, *observer); // a model with listeners wants a transaction for each change
        }
        for (ModelElement const &element : held) {
            ASSERT_TRUE(element) << work.journal();
            ASSERT_EQ(model->findElement(element->getUuid()).get(), element.get()) << work.journal();
        }

        // What comes after goes as it would have gone without the rolled-back work.
        Model untouched = Model::createTransientModel();
        if (extensions)
            declareExtensions(untouched);
        RandomWork(untouched, seed * 7919, committingHere).run(30);
        RandomWork(model, seed + 1000003, committingHere).run(30);
        RandomWork(untouched, seed + 1000003, committingHere).run(30);
        ASSERT_EQ(describeDifference(picture(untouched), picture(model)), "") << work.journal();
        if (::testing::Test::HasFailure())
            break;
    }
}

TEST(TransactionRollBack, CommittedWorkEqualsTheSameWorkDoneDirectly) {
    unsigned const count = sequences(100);
    for (unsigned seed = 1; seed <= count; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Model direct = Model::createTransientModel();
        RandomWork(direct, seed, committing).run(100);

        Model transacted = Model::createTransientModel();
        RandomWork work(transacted, seed, committing);
        Transaction transaction = transacted->beginRevertibleTransaction();
        work.run(100);
        ASSERT_EQ(transaction.commit(), R::Committed) << work.journal();
        ASSERT_EQ(describeDifference(snapshot(direct), snapshot(transacted)), "") << work.journal();
        if (::testing::Test::HasFailure())
            break;
    }
}

// The usage account comes back with the elements: a model never holds both kinds.
TEST_F(TransactionTest, RollBackRestoresTheModelsContent) {
    {
        Transaction transaction = model->beginRevertibleTransaction();
        Book::create(model);
        EXPECT_EQ(model->getModelContent(), ModelContent::InferredReified);
        EXPECT_EQ(transaction.rollBack(), R::RolledBack);
    }
    EXPECT_EQ(model->getModelContent(), ModelContent::Undetermined);

    Book only = Book::create(model);
    {
        Transaction transaction = model->beginRevertibleTransaction();
        only->destroy();
        EXPECT_EQ(model->getModelContent(), ModelContent::Undetermined);
        EXPECT_EQ(transaction.rollBack(), R::RolledBack);
    }
    EXPECT_EQ(model->getModelContent(), ModelContent::InferredReified);
    EXPECT_THROW(test::ReflectiveNote::create(model), basalt::except::IUserException);
}

} // namespace
} // namespace kivra::test::library
