// The common workload: a library of N books and N/10 writers, created, read, changed and
// rolled back, partly deleted, and the model destroyed. Prints one JSON object per line and
// step, with the time per element or per change and the heap an element costs.
//
//   kivra_workload                 N = 20,000, 200,000 and 1,000,000
//   kivra_workload --big           also N = 10,000,000
//   kivra_workload --cpu-time      processor time instead of wall time
//   kivra_workload --sizes 5000    the sizes given, comma-separated
//   kivra_workload --stop-after W1 exit after the first step whose name starts so (profiling)
//   kivra_workload --cold          measure each size in a process that has not run it before
//
// By default each size is run once unmeasured before it is measured, as the reference figures
// are medians of warm runs: the process then holds memory the system has handed it before, and
// it keeps as much as the unmeasured run gave back (the library's bound on retained memory is
// raised to that, as a managed runtime's heap stays at the size its last run needed). On a
// virtual machine the first touch of memory can cost more than everything else a step does
// (a cold W1 at 2*10^5 took 3-4 times as long as a warm one here; at 10^7, with the default
// bound of 528 MiB, a third of W1 was the system clearing fresh pages).
//
// The save/load and query steps are left out until serializers and queries exist.
#include "AllocationCounter.hpp"
#include "core/ElementPool.hpp"
#include "core/PageMemory.hpp"

#include <workload/Book.hpp>
#include <workload/Library.hpp>
#include <workload/Writer.hpp>

#include <kivra/Model.hpp>
#include <kivra/RetainedMemory.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Property.hpp>

#include <malloc.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace kivra::bench::workload;
/// Wall time, or with `--cpu-time` the process's processor time: on a shared machine the
/// latter leaves out the time other programs take.
struct Clock {
    using time_point = double; // milliseconds
    static inline bool cpuTime = false;
    static time_point now() {
        timespec ts{};
        clock_gettime(cpuTime ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC, &ts);
        return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) * 1e-6;
    }
};
using Tag = kivra::ModelElement::Impl::ReflectionPrivateTag;

/// The heap in use, with the large blocks the model maps from the system beside it, less
/// what pools that went keep for the next.
std::size_t heapInUse() {
    auto const info = mallinfo2();
    return info.uordblks + info.hblkhd + kivra::detail::mappedBytes() - kivra::detail::ElementPool::keptHeapBytes() -
           kivra::detail::keptBlockBytes();
}

char const *stopAfter = nullptr;
/// True during the unmeasured run before a measured one: nothing is printed.
bool quiet = false;

double millisecondsSince(Clock::time_point start) {
    return Clock::now() - start;
}

/// The texts "<prefix>0", "<prefix>1", ... in turn, each counted up from the one before
/// rather than formatted anew. Written straight into the library's own text, which keeps a
/// short title inline: the harness should not outweigh what it measures.
class Numbered {
public:
    explicit Numbered(std::u16string_view prefix) : prefixSize_(std::min<std::size_t>(prefix.size(), 24)) {
        prefix = prefix.substr(0, prefixSize_);
        first_ = std::end(units_) - 1;
        *first_ = u'0';
        std::copy(prefix.begin(), prefix.end(), saved_);
        std::copy(prefix.begin(), prefix.end(), first_ - prefixSize_);
    }
    basalt::ustring next() {
        char16_t *const end = std::end(units_);
        basalt::ustring text(first_ - prefixSize_, std::size_t(end - first_) + prefixSize_);
        char16_t *digit = end - 1;
        while (digit >= first_ && *digit == u'9')
            *digit-- = u'0';
        if (digit >= first_) {
            ++*digit;
        } else {
            // One digit more: the prefix moves left by one.
            *--first_ = u'1';
            std::copy(saved_, saved_ + prefixSize_, first_ - prefixSize_);
        }
        return text;
    }

private:
    char16_t units_[48];
    char16_t saved_[24];
    char16_t *first_;
    std::size_t prefixSize_;
};

void line(char const *step, std::size_t n, double ms, char const *unit, double perUnit, char const *extra = "") {
    if (quiet)
        return;
    std::printf("{\"system\":\"kivra\", \"step\":\"%s\", \"n\":%zu, \"ms\":%.1f, \"%s\":%.1f%s}\n", step, n, ms, unit,
                perUnit, extra);
    std::fflush(stdout);
    if (stopAfter != nullptr && std::strncmp(step, stopAfter, std::strlen(stopAfter)) == 0)
        std::_Exit(0);
}

[[noreturn]] void fail(char const *what) {
    std::fprintf(stderr, "workload check failed: %s\n", what);
    std::exit(1);
}

// W1 create: one transaction, three attributes set on each book, books and writers held by
// the library.
[[gnu::noinline]] Library createLibrary(kivra::Model const &model, std::size_t n, std::vector<Book> &books,
                                        std::size_t writerCount, std::vector<Writer> &writers) {
    kivra::Transaction transaction = model->beginTransaction(false);
    Library library = Library::create(model);
    library->setName(u"Library");
    auto &libraryBooks = library->getBooksMutable();
    Numbered titles(u"Book ");
    for (std::size_t i = 0; i < n; ++i) {
        Book book = Book::create(model);
        book->setTitle(titles.next());
        book->setPages(std::int32_t(i % 1000));
        book->setCategory(Category(i % 3));
        libraryBooks.push_back(book);
        books.push_back(std::move(book));
    }
    auto &libraryWriters = library->getWritersMutable();
    Numbered names(u"Writer ");
    for (std::size_t j = 0; j < writerCount; ++j) {
        Writer writer = Writer::create(model);
        writer->setName(names.next());
        libraryWriters.push_back(writer);
        writers.push_back(std::move(writer));
    }
    transaction.commit();
    return library;
}

// W2 link: two authors per book, both ends kept. A function of its own so that a profiler
// can be told to look at this step alone.
[[gnu::noinline]] void linkBooks(kivra::Model const &model, std::vector<Book> const &books,
                                 std::vector<Writer> const &writers) {
    std::size_t const writerCount = writers.size();
    kivra::Transaction transaction = model->beginTransaction(false);
    for (std::size_t i = 0; i < books.size(); ++i) {
        auto &authors = books[i]->getAuthorsMutable();
        authors.push_back(writers[i % writerCount]);
        authors.push_back(writers[(i * 7 + 3) % writerCount]);
    }
    transaction.commit();
}

[[gnu::noinline]] void destroyModel(kivra::Model &model) {
    model->destroy();
    model.reset();
}

void run(std::size_t n) {
    std::size_t const writerCount = n / 10;
    std::size_t const elementCount = 1 + n + writerCount;
    // The handles a client keeps to walk its books are not the model's cost: reserved first,
    // and their pages faulted in (a fault costs some 3 us on a virtual machine).
    std::vector<Book> books(n);
    books.clear();
    std::vector<Writer> writers(writerCount);
    writers.clear();
    std::size_t const heapBefore = heapInUse();

    auto start = Clock::now();
    kivra::Model model = kivra::Model::createTransientModel();
    Library library = createLibrary(model, n, books, writerCount, writers);
    double ms = millisecondsSince(start);
    char extra[96];
    std::snprintf(extra, sizeof extra, ", \"bytes/element\":%.1f",
                  double(heapInUse() - heapBefore) / double(elementCount));
    line("W1 create", n, ms, "ns/element", ms * 1e6 / double(elementCount), extra);
    if (model->elementCount() != elementCount || model->getTopLevelElements().size() != 1)
        fail("element count after creation");
    for (std::size_t i : {std::size_t(0), std::size_t(9), std::size_t(10), n / 3, n - 1}) {
        std::string const digits = std::to_string(i);
        std::u16string const expected = u"Book " + std::u16string(digits.begin(), digits.end());
        if (i < n && std::u16string_view(books[i]->getTitle()) != expected)
            fail("book titles");
    }

    std::size_t const heapBeforeLinks = heapInUse();
    start = Clock::now();
    linkBooks(model, books, writers);
    ms = millisecondsSince(start);
    std::size_t links = 0;
    for (Writer const &writer : writers)
        links += writer->getBooks().size();
    std::snprintf(extra, sizeof extra, ", \"bytes/link\":%.1f",
                  double(heapInUse() - heapBeforeLinks) / double(links));
    line("W2 link", n, ms, "ns/link", ms * 1e6 / double(links), extra);
    std::size_t sameWriter = 0; // a book whose two authors are one writer has one link
    for (std::size_t i = 0; i < n; ++i)
        sameWriter += i % writerCount == (i * 7 + 3) % writerCount;
    if (links != 2 * n - sameWriter)
        fail("link count");

    // W3 read: typed getters, then reflective reads, ten passes each.
    std::int64_t expected = 0;
    for (std::size_t i = 0; i < n; ++i)
        expected += std::int64_t(i % 1000);
    constexpr int passes = 10;
    std::size_t titleLength = 0;
    start = Clock::now();
    for (int pass = 0; pass < passes; ++pass) {
        std::int64_t sum = 0;
        for (Book const &book : books) {
            sum += book->getPages();
            titleLength += book->getTitle().size();
        }
        if (sum != expected)
            fail("typed page sum");
    }
    ms = millisecondsSince(start) / passes;
    line("W3 read typed", n, ms, "ns/read", ms * 1e6 / double(2 * n));

    kivra::meta::Property const &pages = Book::Impl::pagesProperty();
    kivra::meta::Property const &title = Book::Impl::titleProperty();
    std::size_t const allocationsBefore = kivra::bench::allocations();
    start = Clock::now();
    for (int pass = 0; pass < passes; ++pass) {
        std::int64_t sum = 0;
        for (Book const &book : books) {
            sum += book->getPropertyValue(pages, Tag::PUBLIC_ACCESS).get<std::int32_t>();
            titleLength += book->getPropertyValue(title, Tag::PUBLIC_ACCESS).get<basalt::ustring>().size();
        }
        if (sum != expected)
            fail("reflective page sum");
    }
    ms = millisecondsSince(start) / passes;
    std::snprintf(extra, sizeof extra, ", \"allocations/read\":%.2f",
                  double(kivra::bench::allocations() - allocationsBefore) / double(2 * n * passes));
    line("W3 read reflective", n, ms, "ns/read", ms * 1e6 / double(2 * n), extra);
    if (titleLength == 0)
        fail("titles");

    // The scalar half alone: a text longer than the string's inline capacity needs its own
    // heap copy in every value, which the pair above includes.
    start = Clock::now();
    for (int pass = 0; pass < passes; ++pass) {
        std::int64_t sum = 0;
        for (Book const &book : books)
            sum += book->getPropertyValue(pages, Tag::PUBLIC_ACCESS).get<std::int32_t>();
        if (sum != expected)
            fail("reflective page sum");
    }
    ms = millisecondsSince(start) / passes;
    line("W3 read reflective, pages only", n, ms, "ns/read", ms * 1e6 / double(n));

    // W4 record and roll back: one change per book in a revertible transaction.
    {
        start = Clock::now();
        kivra::Transaction transaction = model->beginRevertibleTransaction();
        for (Book const &book : books)
            book->setPages(book->getPages() + 1);
        ms = millisecondsSince(start);
        line("W4 record", n, ms, "ns/change", ms * 1e6 / double(n));
        start = Clock::now();
        if (transaction.rollBack() != kivra::TransactionResult::RolledBack)
            fail("roll-back result");
        transaction = kivra::Transaction();
        ms = millisecondsSince(start);
        line("W4 roll back", n, ms, "ns/change", ms * 1e6 / double(n));
    }
    for (std::size_t i = 0; i < n; ++i)
        if (books[i]->getPages() != std::int32_t(i % 1000))
            fail("value after roll-back");

    // W7 delete: every tenth book, in one transaction, out of the library's list and its
    // writers' sets. The library's list is compacted in one pass, the doomed books moved
    // behind the others and cut off at once, so that no removal shifts the whole list.
    start = Clock::now();
    {
        kivra::Transaction transaction = model->beginTransaction(false);
        auto &libraryBooks = library->getBooksMutable();
        std::size_t kept = 0;
        for (std::size_t i = 0; i < libraryBooks.size(); ++i)
            if (i % 10 != 0) {
                if (kept != i)
                    libraryBooks.swap(kept, i);
                ++kept;
            }
        libraryBooks.erase(kept, libraryBooks.size());
        for (std::size_t i = 0; i < n; i += 10)
            books[i]->destroy();
        transaction.commit();
    }
    ms = millisecondsSince(start);
    std::size_t const deleted = (n + 9) / 10;
    line("W7 delete", n, ms, "ns/element", ms * 1e6 / double(deleted));
    if (model->elementCount() != elementCount - deleted || library->getBooks().size() != n - deleted)
        fail("element count after deletion");
    for (Writer const &writer : writers)
        for (Book const &book : writer->getBooks())
            if (!book)
                fail("a writer keeps a deleted book");

    // The model goes, with everything in it.
    books.clear();
    writers.clear();
    library.reset();
    start = Clock::now();
    destroyModel(model);
    ms = millisecondsSince(start);
    line("destroy model", n, ms, "ns/element", ms * 1e6 / double(elementCount - deleted));
}

} // namespace

int main(int argc, char **argv) {
    std::vector<std::size_t> sizes{20'000, 200'000, 1'000'000};
    bool cold = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--cpu-time") == 0) {
            Clock::cpuTime = true;
        } else if (std::strcmp(argv[i], "--stop-after") == 0 && i + 1 < argc) {
            stopAfter = argv[++i];
        } else if (std::strcmp(argv[i], "--cold") == 0) {
            cold = true;
        } else if (std::strcmp(argv[i], "--big") == 0) {
            sizes.push_back(10'000'000);
        } else if (std::strcmp(argv[i], "--sizes") == 0 && i + 1 < argc) {
            sizes.clear();
            for (char *text = argv[++i]; *text;) {
                char *end = nullptr;
                sizes.push_back(std::strtoull(text, &end, 10));
                text = *end ? end + 1 : end;
            }
        } else {
            std::fprintf(stderr, "usage: kivra_workload [--big] [--sizes N,N,...] [--cold] [--cpu-time] [--stop-after STEP]\n");
            return 2;
        }
    }
    // The registry and the workload's metamodel are made once, before anything is measured.
    {
        kivra::Model warmup = kivra::Model::createTransientModel();
        Book::create(warmup)->setTitle(u"warm-up");
    }
    for (std::size_t n : sizes) {
        if (!cold) {
            // Above what a run holds at its peak in pages of its own (about 290 bytes an element
            // at 2*10^6, when the records of W4 stand beside the model).
            kivra::setRetainedMemoryLimit(std::max(kivra::getRetainedMemoryLimit(), n * 1024));
            quiet = true;
            run(n);
            quiet = false;
        }
        run(n);
    }
    return 0;
}
