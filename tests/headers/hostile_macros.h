// Macros that well-known headers define, under names that a library may want for its own. Those that take arguments
// expand to what does not compile, so that every use of the name fails.

// Kernel-style and packet-processing headers
#define likely(x) hostile_macro_expanded @
#define unlikely(x) hostile_macro_expanded @
#define prefetch(x) hostile_macro_expanded @
#define prefetchw(x) hostile_macro_expanded @
#define barrier() hostile_macro_expanded @
#define container_of(pointer, type, member) hostile_macro_expanded @
#define list_entry(pointer, type, member) hostile_macro_expanded @
#define list_for_each(position, head) hostile_macro_expanded @
#define min_t(type, a, b) hostile_macro_expanded @
#define max_t(type, a, b) hostile_macro_expanded @
#define clamp_t(type, a, b, c) hostile_macro_expanded @
#define round_up(x, y) hostile_macro_expanded @
#define round_down(x, y) hostile_macro_expanded @
#define roundup(x, y) hostile_macro_expanded @
#define howmany(x, y) hostile_macro_expanded @
#define array_size(x) hostile_macro_expanded @
#define foreach(x, y) hostile_macro_expanded @
#define pool_get(x, y) hostile_macro_expanded @
#define pool_put(x, y) hostile_macro_expanded @
#define hash_get(x, y) hostile_macro_expanded @
#define hash_set(x, y, z) hostile_macro_expanded @
#define noinline hostile_macro_expanded @
#define always_inline hostile_macro_expanded @
#define packed hostile_macro_expanded @
#define unused hostile_macro_expanded @
#define aligned(x) hostile_macro_expanded @
#define weak hostile_macro_expanded @
#define cold hostile_macro_expanded @
#define hot hostile_macro_expanded @
#define flatten hostile_macro_expanded @

// Device numbers
#define major(x) hostile_macro_expanded @
#define minor(x) hostile_macro_expanded @
#define makedev(x, y) hostile_macro_expanded @

// X11
#define Above hostile_macro_expanded @
#define Always hostile_macro_expanded @
#define Below hostile_macro_expanded @
#define Bool hostile_macro_expanded @
#define Complex hostile_macro_expanded @
#define Expose hostile_macro_expanded @
#define False hostile_macro_expanded @
#define None hostile_macro_expanded @
#define Status hostile_macro_expanded @
#define Success hostile_macro_expanded @
#define True hostile_macro_expanded @
#define Unsorted hostile_macro_expanded @

// User interfaces and other systems
#define emit hostile_macro_expanded @
#define far hostile_macro_expanded @
#define forever hostile_macro_expanded @
#define interface hostile_macro_expanded @
#define near hostile_macro_expanded @
#define signals hostile_macro_expanded @
#define slots hostile_macro_expanded @
#define small hostile_macro_expanded @
#define IN hostile_macro_expanded @
#define OUT hostile_macro_expanded @
#define ERROR hostile_macro_expanded @
#define linux hostile_macro_expanded @
#define unix hostile_macro_expanded @

// Assertions and logs
#define check(x) hostile_macro_expanded @
#define ensure(x) hostile_macro_expanded @
#define expect(x, y) hostile_macro_expanded @
#define panic(...) hostile_macro_expanded @
#define require(x, y) hostile_macro_expanded @
#define verify(x) hostile_macro_expanded @
#define ASSERT(x) hostile_macro_expanded @
#define BUG_ON(x) hostile_macro_expanded @
#define CHECK(x) hostile_macro_expanded @
#define ENSURE(x) hostile_macro_expanded @
#define EXPECT(x) hostile_macro_expanded @
#define LOG(x) hostile_macro_expanded @
#define REQUIRE(x) hostile_macro_expanded @
#define TEST(x, y) hostile_macro_expanded @
#define VERIFY(x) hostile_macro_expanded @
#define WARN_ON(x) hostile_macro_expanded @
