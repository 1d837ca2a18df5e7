// The system's cpp-httplib is not built with ThreadSanitizer: the synchronisation inside it is
// invisible, and its worker threads' memory calls look like races. Every test program ignores calls
// made from inside that library, run by ctest alone or by the test command; our handlers on its
// threads are still checked.
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libcpp-httplib.so\n"; }
