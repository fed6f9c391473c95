#include "lazylibrary.h"

#include "generalFunc/globals.h"

#include <dlfcn.h>

namespace lumbra {

// Left loaded: callbacks of the library (a broker's network thread) may run
// until the very end of the process.
LazyLibrary::~LazyLibrary() = default;

void LazyLibrary::load()
{
    // RTLD_LOCAL: the library's names stay out of the way of every other
    // library's look-ups.
    m_handle = dlopen(m_soname, RTLD_NOW | RTLD_LOCAL);
    if (m_handle)
        zlog_info(g_zlog, "%s loaded", m_soname);
    else
        zlog_error(g_zlog, "cannot load %s: %s", m_soname, dlerror());
}

bool LazyLibrary::loaded()
{
    std::call_once(m_once, [this] { load(); });
    return m_handle != nullptr;
}

void *LazyLibrary::symbol(const char *name)
{
    if (!loaded())
        return nullptr;
    void *address = dlsym(m_handle, name);
    if (!address)
        zlog_error(g_zlog, "%s has no %s", m_soname, name);
    return address;
}

}  // namespace lumbra
