#include "platform/threads.h"

#include <csignal>
#include <pthread.h>

namespace vigilo {

void blockSignalsInThisThread() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

}  // namespace vigilo
