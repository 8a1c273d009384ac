#include "apps/svc/upload/Journal.h"
