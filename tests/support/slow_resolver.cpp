// Preloaded into a server under test: a resolver that never answers in time.
// Every reverse look-up takes 3 s and finds nothing, as with a name server
// that does not reply.
#include <netdb.h>
#include <unistd.h>

extern "C" int gethostbyaddr_r(const void*, socklen_t, int, struct hostent*, char*, size_t,
                               struct hostent** result, int* h_errnop) {
  sleep(3);
  *result = nullptr;
  *h_errnop = TRY_AGAIN;
  return 0;
}

extern "C" int getnameinfo(const struct sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int) {
  sleep(3);
  return EAI_AGAIN;
}
