#include "apps/svc/upload/ObjectKey.h"
