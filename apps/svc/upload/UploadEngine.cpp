#include "apps/svc/upload/UploadEngine.h"
