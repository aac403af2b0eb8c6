// Leaks the leak checker of sanitizer builds is not to report, all inside system libraries and
// all bounded (none grows with use). Compiled into every test executable and every program of
// a sanitizer build (the tests run the programs too), so that a child process checks its leaks
// as its parent does.
//  - Fontconfig keeps its caches for the life of the process and never frees them; painting
//    any text through Pango loads them.
//  - GLib's and GStreamer's start-up tables (library constructors, the plugin registry's
//    interned names) live for the process in blocks no pointer the checker follows leads to.
//  - GStreamer's HTTP source shares one session per pipeline through its contexts; finalising
//    that session from a pipeline's list of contexts leaves a few bytes of its own.
//  - WebKit keeps pointers packed into fewer than 64 bits, which the checker cannot follow.
//  - GLib never frees an outgrown quark table (lookups stay lock-free); GStreamer's many names
//    outgrow the first one.

// GLib and GStreamer are built without frame pointers, so the fast unwinder stops at g_malloc
// and every leak inside them would look alike; the slow one sees through them, at about twice
// the cost of an allocation, which lets the suppressions above name what they mean.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}

extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n"
           "leak:_dl_init\n"
           "leak:gst_update_registry\n"
           "leak:gst_structure_free\n"
           "leak:libWPEWebKit-1.1.so\n"
           "leak:g_quark_from_static_string\n"
           "leak:g_quark_from_string\n"
           "leak:g_intern_static_string\n"
           "leak:g_intern_string\n";
}
