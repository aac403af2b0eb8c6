// Leaks the leak checker of sanitizer builds is not to report. Fontconfig keeps its caches for
// the life of the process and never frees them; painting any text through Pango loads them.
// Compiled into every test executable; without a sanitizer the hook is never called.

extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
