/* The whole C interface of KeloAXLConfigLogger. */
#ifndef KELO_KELO_H_
#define KELO_KELO_H_

#include "kelo/config.h"
#include "kelo/energy.h"
#include "kelo/logging.h"
#include "kelo/stats.h"
#include "kelo/vsl.h"

#define KELO_VERSION_MAJOR 1
#define KELO_VERSION_MINOR 0
#define KELO_VERSION_PATCH 0

#endif /* KELO_KELO_H_ */
