// Lets the n-th of a kind of system call fail, as the product sees it: its own, and SQLite's.
#pragma once

namespace failing {

enum Call {
    kNone,
    kOpen,
    kPread,
    kShmget,
    kShmat,
    kSemget,
    kSemop,
    kMalloc,
    kSqliteMalloc,
    kThread,
    kSocket,
    kBind,
    kAccept
};

/// The n-th call from now on fails, with `forGood` every later one too. kNone: none does.
void arm(Call call, long n, bool forGood);
/// Whether there has been an n-th call since `arm`.
bool reached();

/// While one lives, the thread's calls are the product's. A thread that the product starts is the product's
/// all along; the test's own thread is not.
class Product {
public:
    Product();
    ~Product();
};
/// Marks the calling thread as the test's.
void ownThread();

} // namespace failing
