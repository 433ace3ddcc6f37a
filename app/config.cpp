#include "app/config.h"
