// A low layer that reaches up: the layer check must report this line.
#include "high/high.h"
