#include "kelvo/main_thread.h"

#include "kelvo/kelvo.h"

void KelvoMainThread::Execute(void* arg) {
  (void)Kelvo::filter_read_thread(owner());  // always 0
  COrbelThreadKelvo::Execute(arg);
}
