// A shared library opened on first use instead of at start: libraries that
// only rare work needs (software downloads, forwarding brokers) would
// otherwise map and relocate themselves and everything they pull in, some
// megabytes of resident memory, in every gateway whether it uses them or not.
#pragma once

#include <mutex>

namespace lumbra {

class LazyLibrary {
public:
    // soname as the dynamic loader finds it ("libcurl.so.4").
    explicit LazyLibrary(const char *soname) : m_soname(soname) {}
    ~LazyLibrary();
    LazyLibrary(const LazyLibrary &) = delete;
    LazyLibrary &operator=(const LazyLibrary &) = delete;

    // The address of name, loading the library the first time; null (with
    // one log line per library) when it cannot be loaded or lacks the name.
    void *symbol(const char *name);
    bool loaded();

private:
    void load();

    const char *m_soname;
    std::once_flag m_once;
    void *m_handle = nullptr;
};

// The entry point `name` of lib as a pointer of the declared type F.
template <typename F>
F lazySymbol(LazyLibrary &lib, const char *name)
{
    return reinterpret_cast<F>(lib.symbol(name));
}

}  // namespace lumbra

// Defines the C entry point `ret name params` of a lazily loaded library as
// a call of the library's own, looked up once; `failed` is the answer when
// the library or the name is missing. The library's header declares name,
// so a forwarder that does not match the real entry point does not compile.
#define LUMBRA_LAZY_FORWARD(lib, ret, name, params, args, failed)                      \
    ret name params                                                                     \
    {                                                                                   \
        static const auto real = lumbra::lazySymbol<decltype(&name)>(lib(), #name);     \
        return real ? real args : failed;                                               \
    }
#define LUMBRA_LAZY_FORWARD_VOID(lib, name, params, args)                              \
    void name params                                                                    \
    {                                                                                   \
        static const auto real = lumbra::lazySymbol<decltype(&name)>(lib(), #name);     \
        if (real)                                                                       \
            real args;                                                                  \
    }
