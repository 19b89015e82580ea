// A library whose information table is empty.
extern "C" {
const char* zqinfoempty_LIBRARYINFO[] = {"", nullptr};
int zqinfoempty_answer() { return 7; }
}
