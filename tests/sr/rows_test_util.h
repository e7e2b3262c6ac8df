// The row helpers live with the table helpers.
#include "sr/table_test_util.h"
