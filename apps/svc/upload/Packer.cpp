#include "apps/svc/upload/Packer.h"
