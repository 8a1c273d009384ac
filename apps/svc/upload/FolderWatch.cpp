#include "apps/svc/upload/FolderWatch.h"
