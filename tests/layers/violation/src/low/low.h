#include "high/high.h"  // a low layer reaching up: the check must report it
