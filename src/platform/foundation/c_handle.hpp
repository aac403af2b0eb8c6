// Owning handles for objects of C libraries (curl, cairo, pango, sqlite, OpenSSL, GLib...): a
// unique_ptr whose deleter calls the library's release function, so no object is leaked on an
// early return or an exception. Move-only; an empty handle owns nothing and releases nothing.
// The same deleter serves a shared_ptr when a C object has several owners. A handle is used
// from whatever threads its library allows for the object; the handle adds no locking.
//
//   using EasyHandle = CHandle<CURL, curl_easy_cleanup>;
//   EasyHandle easy(curl_easy_init());
//   std::shared_ptr<cairo_surface_t> shared(surface, CHandleDeleter<cairo_surface_destroy>{});
//
// Private to the platform layer (the embedded service may use it too).
#pragma once

#include <memory>

namespace sorvan {

template <auto Release>
struct CHandleDeleter {
    template <typename T>
    void operator()(T* p) const noexcept {
        if (p != nullptr)
            Release(p);
    }
};

template <typename T, auto Release>
using CHandle = std::unique_ptr<T, CHandleDeleter<Release>>;

}  // namespace sorvan
