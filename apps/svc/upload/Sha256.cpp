#include "apps/svc/upload/Sha256.h"
