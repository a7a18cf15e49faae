/* SPDX-License-Identifier: Apache-2.0 */
/* The thread exit lives in C: pthread_exit unwinds the thread's stack, and a C++ noexcept frame
 * (every C++ entry of this library is one) turns that unwind into std::terminate. */
#include <pthread.h>

#include "tarnwick/platform.h"

TW_API void upnp_end_thread(void) { pthread_exit(NULL); }
