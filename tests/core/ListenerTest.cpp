#include <library/Author.hpp>
#include <library/Book.hpp>
#include <library/Shelf.hpp>

#include <kivra/Listener.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReportData.hpp>

#include <basalt/except/Exception.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kivra::test::library {
namespace {

using Report = std::shared_ptr<ReportData>;

// A listener in every role whose reactions the tests set, and which writes down the
// phases it sees.
struct Recorder : Listener {
    std::vector<std::string> &journal;
    std::string name;
    std::function<void(Report const &)> onModify = [](Report const &) {};
    std::function<bool(Report const &)> onValidate = [](Report const &) { return true; };
    std::function<void(Report const &)> onCommitted = [](Report const &) {};
    Report last;
    int removed = 0;

    Recorder(std::vector<std::string> &journal, std::string name) : journal(journal), name(std::move(name)) {}
    void modify(Report const &report) { journal.push_back(name + ":modify"), onModify(report); }
    bool validate(Report const &report) { return journal.push_back(name + ":validate"), onValidate(report); }
    void transactionCommitted(Report const &report) {
        journal.push_back(name + ":committed");
        last = report;
        onCommitted(report);
    }
    void transactionCanceled(bool wasDeep, Report const &report) {
        journal.push_back(name + (wasDeep ? ":canceled-deep" : ":canceled-shallow"));
        last = report;
    }
    void listenerRemoved() override { ++removed; }
};

constexpr unsigned allRoles = ListenerRole::Modifier | ListenerRole::Validator | ListenerRole::Observer;

class ListenerTest : public ::testing::Test {
protected:
    void TearDown() override {
        removeListener(model, first);
        removeListener(model, second);
    }

    std::vector<std::string> journal;
    Recorder first{journal, "first"};
    Recorder second{journal, "second"};
    Model model = Model::createTransientModel();
};

TEST_F(ListenerTest, PhasesRunInOrderAndOnlyWhenSomethingChanged) {
    addListener<allRoles>(model, first);
    addListener<allRoles>(model, second);
    addListener<allRoles>(model, first); // twice is once
    {
        Transaction transaction = model->beginTransaction();
        EXPECT_EQ(transaction.commit(), TransactionResult::Committed);
    }
    EXPECT_TRUE(journal.empty());

    Transaction transaction = model->beginTransaction();
    Book book = Book::create(model);
    EXPECT_EQ(transaction.commit(), TransactionResult::Committed);
    EXPECT_EQ(journal, (std::vector<std::string>{"first:modify", "second:modify", "first:validate", "second:validate",
                                                 "first:committed", "second:committed"}));
    EXPECT_EQ(first.last->getCreated(), std::vector<ModelElement>{book});
    EXPECT_EQ(first.last, second.last); // observers share one report
}

TEST_F(ListenerTest, ReportSortsElementsByWhatHappened) {
    Book kept = Book::create(model);
    Book gone = Book::create(model);
    kept->setTitle(u"Dune");
    addListener<ListenerRole::Observer>(model, first);

    Transaction transaction = model->beginRevertibleTransaction();
    kept->setTitle(u"Emma");
    kept->setTitle(u"Ulysses");
    gone->destroy();
    Book flash = Book::create(model);
    flash->destroy();
    Book fresh = Book::create(model);
    transaction.commit("why");

    Report const &report = first.last;
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getModified(), std::vector<ModelElement>{kept});
    EXPECT_EQ(report->getDestroyed(), std::vector<ModelElement>{gone});
    EXPECT_EQ(report->getCreatedAndDestroyed(), std::vector<ModelElement>{flash});
    EXPECT_EQ(report->of<Book>(report->getCreated()), std::vector<Book>{fresh});
    EXPECT_FALSE(report->isEmpty());
    EXPECT_TRUE(report->isChanged(kept, Book::Impl::titleProperty()));
    EXPECT_FALSE(report->isChanged(kept, Book::Impl::pagesProperty()));
    EXPECT_EQ(report->getChangedProperties(kept), std::vector<meta::Property>{Book::Impl::titleProperty()});
    EXPECT_EQ(report->getOldValue(kept, Book::Impl::titleProperty()).get<basalt::ustring>(), u"Dune");
    EXPECT_EQ(report->getCommitArgument()->get<std::string>(), "why");
    EXPECT_TRUE(report->containsElementChanges(Book::metaClass()));
    EXPECT_FALSE(report->containsElementChanges(Shelf::metaClass()));
}

TEST_F(ListenerTest, ShallowReportsHaveNoOldValuesAndDetectAndRevertDropsUndoneChanges) {
    Book book = Book::create(model);
    addListener<ListenerRole::Observer | ListenerRole::Shallow>(model, first);
    {
        Transaction transaction = model->beginTransaction();
        book->setTitle(u"x");
        transaction.commit();
    }
    EXPECT_THROW(first.last->getOldValue(book, Book::Impl::titleProperty()), Error<messages::GetOldValueFromNonDeep>);

    model->setDetectAndRevertUnchangedProperties(true);
    first.last.reset();
    {
        Transaction transaction = model->beginRevertibleTransaction();
        book->setTitle(u"y");
        book->setTitle(u"x");
        transaction.commit();
    }
    EXPECT_FALSE(first.last); // changed and changed back: nobody hears of it
    {
        // Without old values nothing can be compared: the element stays in the report.
        Transaction transaction = model->beginTransaction();
        book->setTitle(u"y");
        book->setTitle(u"x");
        transaction.commit();
    }
    ASSERT_TRUE(first.last);
    EXPECT_EQ(first.last->getModified(), std::vector<ModelElement>{book});
}

TEST_F(ListenerTest, ValidatorVetoRestoresTheModel) {
    Book book = Book::create(model);
    book->setTitle(u"Dune");
    first.onValidate = [](Report const &report) {
        for (Book const &changed : report->of<Book>(report->getModified()))
            if (changed->getTitle().empty())
                return false;
        return true;
    };
    addListener<ListenerRole::Validator | ListenerRole::Observer>(model, first);
    Transaction transaction = model->beginTransaction();
    book->setTitle(u"");
    EXPECT_EQ(transaction.commit(), TransactionResult::RolledBack);
    EXPECT_EQ(book->getTitle(), u"Dune");
    EXPECT_EQ(journal.back(), "first:canceled-deep"); // a deep listener made it deep

    // A validator that changes the model is refused, which counts as a veto.
    first.onValidate = [&](Report const &) { return book->setPages(1), true; };
    Transaction again = model->beginTransaction();
    book->setTitle(u"Emma");
    EXPECT_EQ(again.commit(), TransactionResult::RolledBack);
    EXPECT_EQ(book->getPages(), 100);
}

TEST_F(ListenerTest, ModifiersSeeEachOthersChanges) {
    Author author = Author::create(model);
    first.onModify = [&](Report const &report) {
        for (Book const &book : report->of<Book>(report->getCreated()))
            book->setAuthor(author);
    };
    second.onModify = [&](Report const &report) { EXPECT_FALSE(report->getModified().empty()); };
    addListener<ListenerRole::Modifier>(model, first);
    addListener<ListenerRole::Modifier>(model, second);
    Transaction transaction = model->beginTransaction();
    Book book = Book::create(model);
    transaction.commit();
    EXPECT_EQ(book->getAuthor(), author);
    EXPECT_EQ(journal, (std::vector<std::string>{"first:modify", "second:modify"}));
}

TEST_F(ListenerTest, ObserverFailuresAndRemovals) {
    first.onCommitted = [](Report const &) { throw std::runtime_error("broken"); };
    addListener<ListenerRole::Observer>(model, first);
    addListener<ListenerRole::Observer>(model, second);
    {
        Transaction transaction = model->beginTransaction();
        Book::create(model);
        EXPECT_EQ(transaction.commit(), TransactionResult::Committed);
    }
    EXPECT_EQ(journal.back(), "second:committed"); // the second ran although the first threw

    // A listener taken off by another during the phase is skipped from then on.
    journal.clear();
    first.onCommitted = [&](Report const &) { removeListener(model, second); };
    {
        Transaction transaction = model->beginTransaction();
        Book::create(model);
        transaction.commit();
    }
    EXPECT_EQ(journal, std::vector<std::string>{"first:committed"});
    EXPECT_EQ(second.removed, 1);
}

TEST_F(ListenerTest, FrozenObserversQueueTheirChanges) {
    model->setFreezeOnNotify(true);
    Book book = Book::create(model);
    first.onCommitted = [&](Report const &) {
        if (book->getPages() == 7)
            return; // the queued change's own commit
        EXPECT_THROW(book->setPages(7), Error<messages::ModelFrozen>);
        model->addToWorkQueue([&](Model const &) { book->setPages(7); });
    };
    addListener<ListenerRole::Observer>(model, first);
    Transaction transaction = model->beginTransaction();
    book->setTitle(u"x");
    transaction.commit();
    EXPECT_EQ(book->getPages(), 7); // ran after the last observer
}

TEST_F(ListenerTest, InterruptsPassThroughObservers) {
    first.onCommitted = [](Report const &) { throw basalt::InterruptException(); };
    addListener<ListenerRole::Observer>(model, first);
    addListener<ListenerRole::Observer>(model, second);
    Transaction transaction = model->beginTransaction();
    Book::create(model);
    EXPECT_THROW(transaction.commit(), basalt::InterruptException);
    EXPECT_EQ(journal, std::vector<std::string>{"first:committed"});
    EXPECT_FALSE(model->isTransactionInProgress()); // the transaction stays committed
}

struct Counted : Listener {
    static inline int alive = 0;
    static inline int removals = 0;
    Counted() { ++alive; }
    ~Counted() override { --alive; }
    void listenerRemoved() override { ++removals; }
    void transactionCommitted(Report const &) {}
};

// A second add of a registered listener changes nothing: the listener is neither told
// that it was removed nor, when the model owns it, deleted.
TEST(Listeners, ASecondAddOfTheSameListenerDoesNothing) {
    Counted::alive = Counted::removals = 0;
    Model model = Model::createTransientModel();
    auto owned = std::make_unique<Counted>();
    Counted *listener = owned.get();
    addOwnedListener<ListenerRole::Observer>(model, std::move(owned));
    addOwnedListener<ListenerRole::Observer>(model, std::unique_ptr<Counted>(listener));
    EXPECT_EQ(Counted::removals, 0);
    EXPECT_EQ(Counted::alive, 1);
    {
        Transaction transaction = model->beginTransaction();
        Book::create(model);
        EXPECT_EQ(transaction.commit(), TransactionResult::Committed); // the listener is still there
    }
    model->destroy();
    EXPECT_EQ(Counted::removals, 1);
    EXPECT_EQ(Counted::alive, 0);
}

// An owned listener that takes itself off in any phase is told at once and lives on until
// its callback has returned and the transaction is over: deleted at once, it returned
// into freed memory.
TEST(Listeners, AnOwnedListenerTakesItselfOffInItsOwnCallback) {
    struct Leaving : Counted {
        Model model;
        int phase = 0;
        int calls = 0;
        explicit Leaving(Model m, int p) : model(std::move(m)), phase(p) {}
        void leave(int now) {
            if (now != phase)
                return;
            removeListener(model, *this);
            EXPECT_EQ(Counted::removals, 1);
            EXPECT_EQ(Counted::alive, 1);
            ++calls; // its own member, after the removal
        }
        void modify(Report const &) { leave(0); }
        bool validate(Report const &) {
            leave(1);
            return true;
        }
        void transactionCommitted(Report const &) { leave(2); }
    };
    for (int phase : {0, 1, 2}) {
        Counted::alive = Counted::removals = 0;
        Model model = Model::createTransientModel();
        addOwnedListener<ListenerRole::Modifier | ListenerRole::Validator | ListenerRole::Observer>(
            model, std::make_unique<Leaving>(model, phase));
        {
            Transaction transaction = model->beginTransaction();
            Book::create(model);
            EXPECT_EQ(transaction.commit(), TransactionResult::Committed) << phase;
        }
        EXPECT_EQ(Counted::removals, 1) << phase;
        EXPECT_EQ(Counted::alive, 0) << phase;
    }
}

// A modifier that throws rolls the transaction back, and the report it was given goes
// with the phase, not with the transaction: it holds the model's elements.
TEST_F(ListenerTest, AFailingModifierLeavesNoReportBehind) {
    std::weak_ptr<ReportData> given;
    bool called = false;
    first.onModify = [&](Report const &report) {
        given = report;
        called = true;
        throw std::runtime_error("refused");
    };
    addListener<ListenerRole::Modifier>(model, first);
    Transaction transaction = model->beginTransaction();
    Book::create(model);
    EXPECT_EQ(transaction.commit(), TransactionResult::RolledBack);
    ASSERT_TRUE(called);
    EXPECT_TRUE(given.expired());
}

} // namespace
} // namespace kivra::test::library
