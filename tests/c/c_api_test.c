/* Every public header as C11: open and close a tree, read the error of a bad call. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qx_cu.h"
#include "qx_pmsg.h"
#include "qx_sr.h"
#include "qx_tr.h"
#include "qx_types.h"

static int failures = 0;

#define CHECK(cond)                                                                           \
    ((cond) ? (void)0                                                                         \
            : (void)(fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond), \
                     ++failures))

int main(void) {
    sr_opaque_handle_t tree = NULL;
    cu_error_t *p_error = NULL;
    char *p_msg = NULL;
    CHECK(sr_open_tree_1(&tree, 0, 0) == 0 && tree != NULL);
    CHECK(sr_close_tree_1(tree) == 0);
    CHECK(sr_open_tree_1(NULL, 0, 0) == 100);
    CHECK(cu_get_error_1(&p_error) == 0 && p_error->cu_error_id == 100);
    CHECK(cu_get_errmsg_1(p_error, &p_msg) == 0 &&
          strcmp(p_msg, "2605-100 A function was passed an invalid handle.\n") == 0);
    cu_rel_errmsg_1(p_msg);
    cu_rel_error_1(p_error);
    if (failures == 0) puts("c_api_test: all checks passed");
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
