// The clock of the sweep program: it defines the C library's time() for the
// program and for the shared library it loads, so that a cleanup() pass can
// be made due again and again while no record expires.
#ifndef LOGINSTORAGE_BENCH_SWEEPCLOCK_H
#define LOGINSTORAGE_BENCH_SWEEPCLOCK_H

namespace bench {

void setClock(long now);
long clock();

}  // namespace bench

#endif
