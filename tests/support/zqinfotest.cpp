// A library with an information table, for the library-information tests.
extern "C" {
const char* zqinfotest_LIBRARYINFO[] = {"zqinfotest 1.0", "built for tests", "", "not reached",
                                        nullptr};
int zqinfotest_answer() { return 42; }
}
