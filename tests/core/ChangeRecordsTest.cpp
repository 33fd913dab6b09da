#include <library/Book.hpp>
#include <library/Novel.hpp>
#include <library/Shelf.hpp>

#include <kivra/Listener.hpp>
#include <kivra/Model.hpp>
#include <kivra/ReportData.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Property.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace kivra::test::library {
namespace {

using Report = std::shared_ptr<ReportData>;
using Properties = std::vector<meta::Property>;

struct LastReport : Listener {
    Report last;
    void transactionCommitted(Report const &report) { last = report; }
};

class ChangeRecordsTest : public ::testing::Test {
protected:
    /// Runs `change` in a transaction that keeps old values and gives its report. The
    /// observer listens to that transaction only: with a listener the model takes changes
    /// only inside a transaction.
    template <class F> Report record(F const &change) {
        observer.last.reset();
        addListener<ListenerRole::Observer>(model, observer);
        {
            Transaction transaction = model->beginRevertibleTransaction();
            change();
            transaction.commit();
        }
        removeListener(model, observer);
        return observer.last;
    }
    ModelElement oldElement(Report const &report, ModelElement const &element, meta::Property const &property) {
        return report->getOldValue(element, property).getElement();
    }

    Model model = Model::createTransientModel();
    LastReport observer;
};

// A child changes hands by a setter at either end of the containment: the report must not
// depend on which end was used, and each child names its old container.
TEST_F(ChangeRecordsTest, ContainmentReadsAlikeFromEitherEnd) {
    meta::Property const shelfEnd = Book::Impl::shelfProperty();
    meta::Property const featured = Shelf::Impl::featuredProperty();
    for (bool const fromContainer : {true, false}) {
        SCOPED_TRACE(fromContainer ? "set by the container" : "set by the child");
        Shelf shelf = Shelf::create(model);
        Shelf previousShelf = Shelf::create(model);
        Book replaced = Book::create(model);
        Book book = Book::create(model);
        shelf->setFeatured(replaced);
        previousShelf->setFeatured(book);

        Report const report = record([&] { fromContainer ? shelf->setFeatured(book) : book->setShelf(shelf); });
        ASSERT_TRUE(report);
        EXPECT_EQ(report->getModified().size(), 4u);
        for (Book const &child : {book, replaced}) {
            EXPECT_TRUE(report->isChanged(child, shelfEnd));
            EXPECT_EQ(report->getChangedProperties(child), Properties{shelfEnd});
        }
        EXPECT_EQ(oldElement(report, book, shelfEnd), previousShelf);
        EXPECT_EQ(oldElement(report, replaced, shelfEnd), shelf);
        EXPECT_EQ(report->getChangedProperties(shelf), Properties{featured});
        EXPECT_EQ(oldElement(report, shelf, featured), replaced);
        EXPECT_EQ(report->getChangedProperties(previousShelf), Properties{featured});
        EXPECT_FALSE(replaced->getShelf());
    }
}

// The old value of a container end is what its getter gave: the old container only when it
// held the element by that end's composite.
TEST_F(ChangeRecordsTest, OldValueOfAContainerEndFollowsTheOldFeature) {
    Shelf shelf = Shelf::create(model);
    Book book = Book::create(model);
    Book host = Book::create(model);
    host->setAppendix(book);

    Report const report = record([&] {
        book->setShelf(shelf);
        book->setShelf({}); // the first old value stays
        book->setShelf(shelf);
    });
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getChangedProperties(book), (Properties{Book::Impl::shelfProperty(), Book::Impl::appendixOfProperty()}));
    EXPECT_EQ(oldElement(report, book, Book::Impl::appendixOfProperty()), host);
    Value const oldShelf = report->getOldValue(book, Book::Impl::shelfProperty());
    EXPECT_FALSE(oldShelf.getElement());
    EXPECT_EQ(oldShelf.getType(), Book::Impl::shelfProperty()->getType());
}

// A subclass's own properties come before those it inherits; a property is told apart by
// the class that declares it, not by its index alone.
TEST_F(ChangeRecordsTest, ChangedPropertiesStartAtTheElementsOwnClass) {
    Novel novel = Novel::create(model);
    Report const report = record([&] {
        novel->setPages(7);
        novel->setGenre(basalt::ustring(u"saga"));
        novel->setTitle(u"Dune");
    });
    ASSERT_TRUE(report);
    EXPECT_EQ(report->getChangedProperties(novel),
              (Properties{Novel::Impl::genreProperty(), Book::Impl::titleProperty(), Book::Impl::pagesProperty()}));
    // Another class's property of the same index as the title is none of the novel's.
    ASSERT_EQ(Shelf::Impl::labelProperty()->getPropertyIndex(), Book::Impl::titleProperty()->getPropertyIndex());
    EXPECT_FALSE(report->isChanged(novel, Shelf::Impl::labelProperty()));
}

// The first change of an element that sets one scalar is kept as that scalar's bytes alone;
// whatever comes after it in the transaction, a report and a roll-back see the value from
// before the transaction, and the element keeps its present value once a report is read.
TEST_F(ChangeRecordsTest, AScalarKeepsItsFirstOldValueWhateverFollows) {
    struct Case {
        char const *name;
        void (*then)(Book const &book, Book const &other);
    };
    Case const cases[] = {
        {"alone", [](Book const &, Book const &) {}},
        {"set again", [](Book const &book, Book const &) { book->setPages(9); }},
        {"another property", [](Book const &book, Book const &) { book->setTitle(u"Dune Messiah"); }},
        {"another element", [](Book const &, Book const &other) { other->setPages(4); }},
        {"destroyed", [](Book const &book, Book const &) { book->destroy(); }},
    };
    meta::Property const pages = Book::Impl::pagesProperty();
    for (Case const &each : cases) {
        SCOPED_TRACE(each.name);
        Novel book = Novel::create(model); // a subclass: its scalar lies further from its start
        book->setPages(7);
        book->setTitle(u"Dune");
        Book other = Book::create(model);
        other->setPages(3);

        Report const report = record([&] {
            book->setPages(8);
            each.then(book, other);
        });
        ASSERT_TRUE(report);
        EXPECT_TRUE(report->isChanged(book, pages));
        EXPECT_EQ(report->getOldValue(book, pages).get<std::int32_t>(), 7);
        if (std::string_view(each.name) == "another element") {
            EXPECT_EQ(report->getOldValue(other, pages).get<std::int32_t>(), 3);
        }
        if (std::string_view(each.name) == "another property") {
            EXPECT_EQ(report->getOldValue(book, Book::Impl::titleProperty()).get<basalt::ustring>(), u"Dune");
        }
        if (book) {
            EXPECT_EQ(book->getPages(), std::string_view(each.name) == "set again" ? 9 : 8);
        }

        book = Novel::create(model);
        book->setPages(7);
        book->setTitle(u"Dune");
        other = Book::create(model);
        other->setPages(3);
        Novel const kept = book;
        {
            Transaction transaction = model->beginRevertibleTransaction();
            book->setPages(8);
            each.then(book, other);
            EXPECT_EQ(transaction.rollBack(), TransactionResult::RolledBack);
        }
        ASSERT_TRUE(kept);
        EXPECT_EQ(kept->getPages(), 7);
        EXPECT_EQ(kept->getTitle(), u"Dune");
        EXPECT_EQ(other->getPages(), 3);
    }
}

// A long transaction that sets a number of elements near and far apart, with whole records
// of other elements in between and, early on, of elements it set before: the report names
// the elements in the order of their first change, each with its first old value, and a
// roll-back puts every value back.
TEST_F(ChangeRecordsTest, ALongTransactionKeepsEveryFirstOldValueInOrder) {
    // Enough elements that those at both ends lie tens of MiB apart.
    constexpr int bookCount = 200'000;
    constexpr int shelfCount = 500;
    constexpr int shelfEvery = bookCount / 2 / shelfCount;
    std::vector<Book> books;
    std::vector<Shelf> shelves;
    boost::posix_time::ptime const epoch(boost::gregorian::date(2020, 1, 1));
    {
        Transaction transaction = model->beginTransaction();
        for (int i = 0; i < bookCount; ++i) {
            books.push_back(Book::create(model));
            books.back()->setPages(i);
        }
        for (int i = 0; i < shelfCount; ++i) {
            shelves.push_back(Shelf::create(model));
            shelves.back()->setOpened(epoch + boost::posix_time::seconds(i));
        }
        transaction.commit();
    }
    auto const span = reinterpret_cast<std::uintptr_t>(books.back().get()) -
                      reinterpret_cast<std::uintptr_t>(books.front().get());
    ASSERT_GT(std::min(span, std::uintptr_t(0) - span), std::uintptr_t(40) << 20) << "books too close together";

    // From both ends inwards, a shelf now and then. Early on, every 100th book changes its
    // title after its pages: the entries kept so far become whole records, the later ones
    // stay as they are until the end.
    std::vector<ModelElement> order;
    auto const work = [&] {
        order.clear();
        for (int i = 0; i < bookCount / 2; ++i) {
            for (int at : {i, bookCount - 1 - i}) {
                books[at]->setPages(-1 - at);
                order.push_back(books[at]);
                if (i < 1000 && at % 100 == 0)
                    books[at]->setTitle(u"changed");
            }
            if (i % shelfEvery == 0) {
                shelves[i / shelfEvery]->setOpened(epoch - boost::posix_time::hours(1));
                order.push_back(shelves[i / shelfEvery]);
            }
        }
    };
    Report const report = record(work);
    ASSERT_TRUE(report);
    EXPECT_TRUE(report->getModified() == order);
    for (int i = 0; i < bookCount; i += 7)
        ASSERT_EQ(report->getOldValue(books[i], Book::Impl::pagesProperty()).get<std::int32_t>(), i) << i;
    for (int i = 0; i < shelfCount; i += 7)
        ASSERT_EQ(report->getOldValue(shelves[i], Shelf::Impl::openedProperty()).get<boost::posix_time::ptime>(),
                  epoch + boost::posix_time::seconds(i))
            << i;
    EXPECT_EQ(books[bookCount - 100]->getTitle(), u"changed");
    EXPECT_EQ(books[1]->getPages(), -2);

    {
        Transaction transaction = model->beginTransaction();
        for (int i = 0; i < bookCount; ++i) {
            books[i]->setPages(i);
            if (i % 100 == 0)
                books[i]->setTitle(u"");
        }
        for (int i = 0; i < shelfCount; ++i)
            shelves[i]->setOpened(epoch + boost::posix_time::seconds(i));
        transaction.commit();
    }
    {
        Transaction transaction = model->beginRevertibleTransaction();
        work();
        EXPECT_EQ(transaction.rollBack(), TransactionResult::RolledBack);
    }
    for (int i = 0; i < bookCount; ++i) {
        ASSERT_EQ(books[i]->getPages(), i) << i;
        ASSERT_EQ(books[i]->getTitle(), u"") << i;
    }
    for (int i = 0; i < shelfCount; ++i)
        ASSERT_EQ(shelves[i]->getOpened(), epoch + boost::posix_time::seconds(i)) << i;
}

} // namespace
} // namespace kivra::test::library
