#include "apps/svc/upload/Intake.h"
