// A library without an information table.
extern "C" int zqnoinfo_answer() { return 1; }
