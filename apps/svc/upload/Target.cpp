#include "apps/svc/upload/Target.h"
