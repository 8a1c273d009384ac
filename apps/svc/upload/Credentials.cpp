#include "apps/svc/upload/Credentials.h"
