#include "model/dl_queues.h"
