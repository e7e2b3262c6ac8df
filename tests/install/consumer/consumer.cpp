// Through the installed package: a row kept in an in-memory table, read back typed.
#include <cstdint>
#include <cstdio>
#include <string>

#include "qx_sr.hpp"

int main() {
    auto tree = qx::sr::Tree::open();
    if (!tree) return std::fprintf(stderr, "%s\n", tree.message().data()), 1;
    auto table = tree->create_table("/mem/consumer",
                                    {{"id", QX_INT32, SR_PRIMARY_KEY}, {"name", QX_CHAR_PTR}});
    if (!table) return std::fprintf(stderr, "%s\n", table.message().data()), 1;
    if (!table->add({{"id", 7}, {"name", "seven"}})) return 1;
    auto name = table->get<std::string>(7, "name");
    auto missing = table->get<std::string>(8, "name");
    if (!name || *name != "seven" || missing.code() != SR_E_NO_ROW_FOR_KEY) return 1;
    std::printf("consumer: read \"%s\"; a missing row says: %.*s\n", name->c_str(),
                static_cast<int>(missing.message().size()), missing.message().data());
    return 0;
}
