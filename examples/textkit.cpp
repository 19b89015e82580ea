// textkit: the string layer every text format of the library is cut with.
//
//   textkit ['a line with "quoted words", and commas']
//
// Splits the line at commas (quotes respected), trims and unquotes each
// field, looks for "PUMP" in it without regard to case, and prints a time
// stamp.
#include <zqcommon/functions.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  std::string rest = argc > 1 ? argv[1] : "  pump 3 , \"valve, main\" , 42 , heater* ";
  std::printf("now: %s\n", mktimestr(GetUTC()).c_str());
  int n = 0;
  while (!rest.empty()) {
    // Commas inside double quotes do not split.
    const std::string field = Trim(GetExtToken(&rest, ","));
    const std::string text = IsQuoted(field) ? dequote(field) : field;
    std::printf("%d: [%s]%s%s\n", ++n, text.c_str(), IsNumeric(text) ? " number" : "",
                ifind(text, "PUMP") != std::string::npos ? " (a pump)" : "");
  }
  std::printf("%s\n", Format("%d fields, quoted back: %s", n, quote("a \"b\" c").c_str()).c_str());
  return 0;
}
