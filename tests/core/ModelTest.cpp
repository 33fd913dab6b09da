#include "Probes.hpp"

#include "core/ElementTable.hpp"

#include <library/Book.hpp>

#include <kivra/Messages.hpp>
#include <kivra/PrimitiveCollection.hpp>
#include <kivra/ModelConstellation.hpp>
#include <kivra/WorkQueue.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kivra {
namespace {

using test::library::Book;
using test::ReflectiveNote;

template <class M, class F> void expectRaises(F &&f) {
    try {
        f();
        ADD_FAILURE() << "nothing raised";
    } catch (Error<M> const &) {
    }
}

TEST(Model, KindsFollowConstellationAndUri) {
    Model member = Model::create(ModelSpec());
    auto const digits = std::to_string(member->serialNumber());
    EXPECT_EQ(member->getModelURI(), u"memory://" + std::u16string(digits.begin(), digits.end()));
    Model transient = Model::createTransientModel();
    EXPECT_TRUE(transient->getModelURI().empty());
    EXPECT_FALSE(transient->getModelConstellation());
    EXPECT_GT(transient->serialNumber(), member->serialNumber());
    Model registry = Model::createRegistryModel(u"registry://metaRegistry/model");
    EXPECT_TRUE(registry->isRegistryModel());
    EXPECT_EQ(registry->getLocationURI(), u"registry://metaRegistry/model");
}

TEST(Model, SetModelUriNeedsAConstellationAndAFreeUri) {
    Model transient = Model::createTransientModel();
    transient->setModelURI(u""); // the present URI: nothing to do, even here
    expectRaises<messages::InvalidValue>([&] { transient->setModelURI(u"file:///a"); });

    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    Model b = Model::create(constellation);
    a->setModelURI(u"file:///a");
    EXPECT_EQ(a->getModelURI(), u"file:///a");
    EXPECT_EQ(constellation->peekModel(u"file:///a"), a);
    expectRaises<messages::UniquenessConstraint>([&] { b->setModelURI(u"file:///a"); });
    EXPECT_EQ(constellation->peekModel(b->getModelURI()), b);
}

TEST(Model, UuidConflictKeepsTheFirstElement) {
    Model model = Model::createTransientModel();
    Book first = Book::create(model);
    auto const id = first->getUuid();
    expectRaises<messages::UUIDConflict>([&] { Book::create(model, id); });
    // The loser is gone and took nothing with it.
    EXPECT_EQ(model->findElement(id), first);
    EXPECT_EQ(model->elementCount(), 1u);
    EXPECT_EQ(model->getTopLevelElements().size(), 1u);
}

TEST(Model, ChangesOutsideATransactionOnlyInALoneModel) {
    Model lone = Model::createTransientModel();
    EXPECT_NO_THROW(Book::create(lone));

    ModelConstellation constellation = ModelConstellation::create();
    Model a = Model::create(constellation);
    EXPECT_NO_THROW(Book::create(a)); // alone in its constellation
    Model b = Model::create(constellation);
    expectRaises<messages::NoOpenTransaction>([&] { Book::create(a); });

    Transaction transaction = a->beginTransaction();
    EXPECT_NO_THROW(Book::create(a));
    EXPECT_EQ(transaction.commit(), TransactionResult::Committed);
}

TEST(Model, ContentIsInferredFromTheFirstElementUnlessDeclared) {
    Model model = Model::createTransientModel();
    EXPECT_EQ(model->getModelContent(), ModelContent::Undetermined);
    Book::create(model);
    EXPECT_EQ(model->getModelContent(), ModelContent::InferredReified);
    expectRaises<messages::InvalidReflectiveModelContent>([&] { ReflectiveNote::create(model); });
    EXPECT_EQ(model->elementCount(), 1u);

    // Emptied completely, an undeclared model may switch kinds.
    model->destroyAllContents();
    EXPECT_EQ(model->getModelContent(), ModelContent::Undetermined);
    EXPECT_NO_THROW(ReflectiveNote::create(model));
    EXPECT_EQ(model->getModelContent(), ModelContent::InferredReflective);

    Model declared = Model::createTransientModel(ModelSpec().setModelReified());
    Book::create(declared);
    declared->destroyAllContents();
    EXPECT_EQ(declared->getModelContent(), ModelContent::DeclaredReified);
    expectRaises<messages::InvalidReflectiveModelContent>([&] { ReflectiveNote::create(declared); });
}

TEST(Model, ConstellationRefusesTheOtherContentFamily) {
    ModelConstellation constellation = ModelConstellation::create();
    Model reified = Model::create(ModelSpec().setConstellation(constellation).setModelReified());
    expectRaises<messages::InvalidModelContentAddedToConstellation>(
        [&] { Model::create(ModelSpec().setConstellation(constellation).setModelReflective()); });
    EXPECT_EQ(constellation->modelsCount(), 1u);

    // An undetermined member learns its content at its first element, and is checked then.
    Model open = Model::create(constellation);
    Transaction transaction = open->beginTransaction();
    expectRaises<messages::InvalidModelContentAddedToConstellation>([&] { ReflectiveNote::create(open); });
    EXPECT_EQ(open->getModelContent(), ModelContent::Undetermined);
}

TEST(Model, DestroyInvalidatesEveryElementAndTheModel) {
    ModelElement kept;
    Model model = Model::createTransientModel();
    for (int i = 0; i < 3; ++i)
        kept = Book::create(model);
    model->destroy();
    EXPECT_FALSE(model);
    EXPECT_FALSE(kept);
    EXPECT_TRUE(model->empty());
    expectRaises<messages::InvalidModel>([&] { model->beginTransaction(); });
    model->destroy(); // harmless
}

TEST(Model, DestroyThatFailsPartWayReleasesWhatIsLeftSafely) {
    // A first-change callback that throws stops the destruction once some trees are gone
    // and freed; the live elements left behind must go without reading the freed ones.
    Model model = Model::createTransientModel();
    for (int i = 0; i < 200; ++i)
        Book::create(model);
    for (int i = 0; i < 50; ++i)
        Book::create(model)->setAppendix(Book::create(model));
    int calls = 0;
    Transaction transaction = model->beginTransaction();
    transaction.addFirstChangeCallback([&] {
        ++calls;
        throw std::runtime_error("refused");
    });
    model->destroy();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(model);
    EXPECT_TRUE(model->empty());
}

TEST(Model, DestroyCalledFromInsideItsOwnDestructionDoesNothing) {
    Model model = Model::createTransientModel();
    Book::create(model)->setAppendix(Book::create(model));
    int calls = 0;
    Transaction transaction = model->beginTransaction();
    transaction.addFirstChangeCallback([&] {
        ++calls;
        model->destroy();
    });
    model->destroy();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(model);
    EXPECT_TRUE(model->empty());
}

TEST(Model, ElementsThatShareOnePathOfTheTableStayFindable) {
    // UUIDs whose hashes share a home and a stride in the element table: more of them than
    // a chunk's count of passing entries can hold, then half destroyed and made again.
    std::mt19937_64 random(7);
    std::vector<boost::uuids::uuid> ids;
    std::size_t const wanted = 700;
    auto const key = [](std::size_t hash) { return (hash & 127) | ((hash >> 57) << 7); };
    boost::uuids::uuid id{};
    std::size_t target = 0;
    while (ids.size() < wanted) {
        std::uint64_t words[2] = {random(), random()};
        std::memcpy(id.data, words, sizeof words);
        std::size_t const hash = detail::uuidHash(id);
        if (ids.empty())
            target = key(hash);
        if (key(hash) == target)
            ids.push_back(id);
    }
    Model model = Model::createTransientModel();
    std::vector<Book> books;
    for (auto const &each : ids)
        books.push_back(Book::create(model, each));
    for (std::size_t i = 0; i < wanted; ++i)
        ASSERT_EQ(model->findElement(ids[i]).get(), books[i].get()) << i;
    for (std::size_t i = 0; i < wanted; i += 2)
        books[i]->destroy();
    for (std::size_t i = 0; i < wanted; ++i)
        EXPECT_EQ(model->findElement(ids[i]).get(), i % 2 ? books[i].get() : nullptr) << i;
    for (std::size_t i = 0; i < wanted; i += 2)
        books[i] = Book::create(model, ids[i]);
    for (std::size_t i = 0; i < wanted; ++i)
        ASSERT_EQ(model->findElement(ids[i]).get(), books[i].get()) << i;
    EXPECT_EQ(model->elementCount(), wanted);
    expectRaises<messages::UUIDConflict>([&] { Book::create(model, ids[3]); });
}

// The table keeps its elements in the order they were entered, through holes, closing up,
// growth and elements that leave while they wait for their slot; every one stays findable.
TEST(Model, TheTableWalksItsElementsInTheOrderTheyCameAndFindsEachOfThem) {
    Model model = Model::createTransientModel();
    std::vector<Book> pool;
    for (int i = 0; i < 6000; ++i)
        pool.push_back(Book::create(model));
    std::mt19937_64 random(11);
    detail::ElementSet set;
    std::vector<ModelElement::Impl *> expected;
    std::vector<bool> in(pool.size());
    auto const check = [&](int step) {
        std::vector<ModelElement::Impl *> walked;
        set.forEach([&](ModelElement::Impl *element) { walked.push_back(element); });
        ASSERT_EQ(walked, expected) << step;
        ASSERT_EQ(set.size(), expected.size()) << step;
        for (std::size_t i = 0; i < pool.size(); ++i)
            ASSERT_EQ(set.find(pool[i]->getUuid()), in[i] ? pool[i].get() : nullptr) << step << ' ' << i;
    };
    for (int step = 0; step < 80; ++step) {
        // A burst of entries, waiting or not, then one of leaving, often from the end: a
        // few at a time, as a roll-back of the newest, or many.
        int const waits = int(random() % 3); // none, all, or either
        for (int n = int(random() % 1200); n > 0; --n) {
            std::size_t const i = random() % pool.size();
            if (in[i]) {
                EXPECT_FALSE(set.insert(pool[i].get()));
                continue;
            }
            if (waits == 1 || (waits == 2 && random() % 2))
                set.defer(pool[i].get());
            else
                ASSERT_TRUE(set.insert(pool[i].get()));
            in[i] = true;
            expected.push_back(pool[i].get());
        }
        for (int n = int(random() % 2 ? random() % 4 : random() % 500); n > 0 && !expected.empty(); --n) {
            std::size_t const at = random() % 3 ? expected.size() - 1 : random() % expected.size();
            ModelElement::Impl *const element = expected[at];
            ASSERT_TRUE(set.erase(element));
            EXPECT_FALSE(set.erase(element));
            expected.erase(expected.begin() + std::ptrdiff_t(at));
            for (std::size_t i = 0; i < pool.size(); ++i)
                if (pool[i].get() == element)
                    in[i] = false;
        }
        check(step);
    }
}

TEST(Model, ElementsMadeInATransactionAreThereForEverythingThatFollows) {
    // Elements made inside a transaction may be entered in the table later than they are
    // made: every search, walk, count, destruction, clash and roll-back must see them all
    // the same.
    Model model = Model::createTransientModel();
    std::vector<Book> books{Book::create(model)};
    auto const expectAllFound = [&] {
        std::size_t found = 0;
        for (Book const &book : books)
            found += book->isValidNonProxy() && model->findElement(book->getUuid()) == book;
        return found;
    };
    {
        Transaction transaction = model->beginTransaction(true);
        for (int i = 0; i < 5000; ++i)
            books.push_back(Book::create(model));
        EXPECT_EQ(model->elementCount(), 5001u);
        EXPECT_EQ(model->getAllElements().size(), 5001u);
        EXPECT_EQ(expectAllFound(), 5001u);
        for (int i = 0; i < 10; ++i)
            books.push_back(Book::create(model));
        expectRaises<messages::UUIDConflict>([&] { Book::create(model, books.back()->getUuid()); });
        for (int i = 0; i < 3000; ++i)
            books.push_back(Book::create(model));
        // Destroyed before anything searched for them.
        for (std::size_t i = 5011; i < books.size(); i += 3)
            books[i]->destroy();
        EXPECT_EQ(model->elementCount(), 7011u);
        EXPECT_EQ(expectAllFound(), 7011u);
        for (int i = 0; i < 100; ++i)
            books.push_back(Book::create(model));
        transaction.rollBack();
    }
    EXPECT_EQ(model->elementCount(), 1u);
    EXPECT_EQ(model->findElement(books[1]->getUuid()), ModelElement());
    EXPECT_EQ(model->findElement(books.back()->getUuid()), ModelElement());
    EXPECT_EQ(model->findElement(books[0]->getUuid()), books[0]);
    books.resize(1);
    Transaction transaction = model->beginTransaction(false);
    for (int i = 0; i < 2000; ++i)
        books.push_back(Book::create(model));
    {
        // Readers of the model, frozen inside the transaction, search from several threads,
        // and each makes the collections of its own half of the books as it reads them: the
        // model's memory is shared by the readers.
        Model::Freezer const frozen = model->freeze();
        std::vector<std::thread> readers;
        std::atomic<std::size_t> found{0};
        std::atomic<std::size_t> entries{0};
        for (std::size_t t = 0; t < 2; ++t)
            readers.emplace_back([&, t] {
                found += expectAllFound();
                for (std::size_t i = t; i < books.size(); i += 2)
                    entries += books[i]->getTags().size() + books[i]->getCoauthors().size();
            });
        for (std::thread &reader : readers)
            reader.join();
        EXPECT_EQ(found.load(), 2 * 2001u);
        EXPECT_EQ(entries.load(), 0u);
    }
    {
        // Elements made while a freeze is lifted wait until the first reader of the frozen
        // model asks: several readers at once must settle them once.
        Model::Freezer frozen = model->freeze();
        {
            Model::Thawer const thawed = frozen.thaw();
            for (int i = 0; i < 50000; ++i)
                books.push_back(Book::create(model));
        }
        std::vector<std::thread> readers;
        std::atomic<std::size_t> found{0};
        for (int t = 0; t < 4; ++t)
            readers.emplace_back([&] { found += expectAllFound(); });
        for (std::thread &reader : readers)
            reader.join();
        EXPECT_EQ(found.load(), 4 * 52001u);
    }
    transaction.commit();
    EXPECT_EQ(expectAllFound(), 52001u);
}

TEST(Model, ALargeTransactionsWaitingElementsAreAllEnteredOnce) {
    // Enough elements to fill the first piece of the waiting list and more than one run
    // after it, read in the middle, and then either kept or rolled back.
    Model model = Model::createTransientModel();
    std::vector<Book> books;
    for (bool const keep : {false, true}) {
        books.clear();
        Transaction transaction = model->beginTransaction(true);
        for (int i = 0; i < 230000; ++i)
            books.push_back(Book::create(model));
        ASSERT_EQ(model->elementCount(), books.size());
        for (int i = 0; i < 140000; ++i)
            books.push_back(Book::create(model));
        std::size_t found = 0;
        for (Book const &book : books)
            found += model->findElement(book->getUuid()) == book;
        EXPECT_EQ(found, books.size());
        if (keep)
            transaction.commit();
        else
            transaction.rollBack();
        EXPECT_EQ(model->elementCount(), keep ? books.size() : 0u);
    }
    std::vector<ModelElement> walked = model->getAllElements();
    EXPECT_EQ(walked.size(), books.size());
    std::set<ModelElement::Impl const *> distinct;
    for (ModelElement const &element : walked)
        distinct.insert(element.get());
    EXPECT_EQ(distinct.size(), books.size());
}

TEST(Model, MoveAllContentsHandsElementsOverOrRefusesAClashBeforeAnythingMoves) {
    Model source = Model::createTransientModel();
    Model target = Model::createTransientModel();
    Book a = Book::create(source);
    Book b = Book::create(source);
    Book::create(target, b->getUuid());

    expectRaises<messages::CannotChangeModel>([&] { source->moveAllContentsTo(target); });
    EXPECT_EQ(a->getModelImpl(), source.get());
    EXPECT_EQ(source->elementCount(), 2u);
    EXPECT_EQ(target->elementCount(), 1u);
    expectRaises<messages::CannotChangeModel>([&] { source->moveAllContentsTo(source); });
    expectRaises<messages::CannotChangeModel>([&] { source->moveAllContentsTo(Model()); });

    b->destroy();
    source->moveAllContentsTo(target);
    EXPECT_EQ(a->getModelImpl(), target.get());
    EXPECT_EQ(target->findElement(a->getUuid()), a);
    EXPECT_FALSE(target->empty());
    EXPECT_TRUE(source->empty());
    EXPECT_EQ(source->elementCount(), 0u);
    EXPECT_TRUE(source); // the source model itself stays
}

TEST(Model, InProgressIndicatorsCountWhileTheyLive) {
    Model model = Model::createTransientModel();
    {
        std::optional<Model::ParseInProgressIndicator> parse(model->startParse());
        Model::ParseInProgressIndicator moved = std::move(*parse);
        parse.reset(); // a moved-from guard counts nothing
        EXPECT_TRUE(model->isParsingInProgress());
        Model::ParseInProgressIndicator second = model->startParse();
        moved = std::move(second); // the guard assigned over lets go of its own count
        EXPECT_TRUE(model->isParsingInProgress());
        auto loading = model->startDataSourceLoading();
        EXPECT_TRUE(model->isDataSourceLoadingInProgress());
    }
    EXPECT_FALSE(model->isParsingInProgress());
    EXPECT_FALSE(model->isDataSourceLoadingInProgress());
    // Back at zero, not below it: a single new guard shows again.
    auto again = model->startParse();
    EXPECT_TRUE(model->isParsingInProgress());
}

TEST(Model, MigrateNeedsALoneMemberAndNoTransaction) {
    ModelConstellation first = ModelConstellation::create();
    ModelConstellation second = ModelConstellation::create();
    Model model = Model::create(first);
    model->migrateToConstellation(second);
    EXPECT_EQ(model->getModelConstellation(), second);
    EXPECT_EQ(first->modelsCount(), 0u);
    EXPECT_EQ(second->modelsCount(), 1u);

    Model other = Model::create(second);
    expectRaises<messages::CannotMigrateModel>([&] { model->migrateToConstellation(first); });
    expectRaises<messages::CannotMigrateModel>([&] { Model::createTransientModel()->migrateToConstellation(first); });
}

} // namespace
} // namespace kivra
