#include "model/json.h"
