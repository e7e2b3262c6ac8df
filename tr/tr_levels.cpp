/*
 * tr_levels.cpp - turns the level text into detail bytes.
 *
 * The level text is a list of component entries separated by ';', each
 * "component:item,item,..." with items "category=level".  "*" as a component
 * or category name matches every one.  Items apply in the order written, so
 * "_SRA:*=2,API=0" traces everything but the API category.  A level is a
 * decimal number 0..255; anything else in an item (no '=', no name, a sign,
 * letters, a larger number) makes the item be skipped rather than guessed at,
 * because a typo in an environment variable must not break the program.
 */
#include <string.h>

#include "tr_i.h"

namespace {

struct tr_i_token_t {
    const char *p;
    size_t length;
};

bool tr_i_is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

tr_i_token_t tr_i_trim(const char *p, size_t length) {
    while (length > 0 && tr_i_is_blank(*p)) {
        ++p;
        --length;
    }
    while (length > 0 && tr_i_is_blank(p[length - 1])) --length;
    return {p, length};
}

bool tr_i_token_is(tr_i_token_t token, const char *p_name) {
    size_t name_length = strlen(p_name);
    return token.length == name_length && memcmp(token.p, p_name, name_length) == 0;
}

bool tr_i_token_is_star(tr_i_token_t token) {
    return token.length == 1 && token.p[0] == '*';
}

/* A level: 1 to 3 decimal digits with a value of at most 255. */
bool tr_i_parse_level(tr_i_token_t token, unsigned *p_level) {
    if (token.length == 0 || token.length > 3) return false;
    unsigned value = 0;
    for (size_t i = 0; i < token.length; ++i) {
        if (token.p[i] < '0' || token.p[i] > '9') return false;
        value = value * 10 + (unsigned)(token.p[i] - '0');
    }
    if (value > 255) return false;
    *p_level = value;
    return true;
}

qx_uint8_t tr_i_clamp(unsigned level, qx_uint32_t minimum) {
    if (level < minimum) level = minimum;
    return level > 255 ? 255 : (qx_uint8_t)level;
}

/* Applies one "category=level" item to the matching categories. */
void tr_i_apply_item(tr_i_token_t item, const tr_category_description_t *p_categories,
                     qx_uint32_t count, qx_uint8_t *p_levels) {
    const char *p_equals = (const char *)memchr(item.p, '=', item.length);
    if (p_equals == nullptr) return;
    tr_i_token_t name = tr_i_trim(item.p, (size_t)(p_equals - item.p));
    tr_i_token_t value = tr_i_trim(p_equals + 1, item.length - (size_t)(p_equals - item.p) - 1);
    unsigned level = 0;
    if (name.length == 0 || !tr_i_parse_level(value, &level)) return;
    bool all = tr_i_token_is_star(name);
    for (qx_uint32_t i = 0; i < count; ++i) {
        if (all || tr_i_token_is(name, p_categories[i].category_name)) {
            p_levels[i] = tr_i_clamp(level, p_categories[i].minimum_level_of_detail);
        }
    }
}

/* Applies one "component:items" entry when it names p_component or "*". */
void tr_i_apply_entry(tr_i_token_t entry, const char *p_component,
                      const tr_category_description_t *p_categories, qx_uint32_t count,
                      qx_uint8_t *p_levels) {
    const char *p_colon = (const char *)memchr(entry.p, ':', entry.length);
    if (p_colon == nullptr) return;
    tr_i_token_t component = tr_i_trim(entry.p, (size_t)(p_colon - entry.p));
    if (!tr_i_token_is_star(component) && !tr_i_token_is(component, p_component)) return;
    const char *p = p_colon + 1;
    const char *p_end = entry.p + entry.length;
    while (p <= p_end) {
        const char *p_comma = (const char *)memchr(p, ',', (size_t)(p_end - p));
        const char *p_item_end = p_comma != nullptr ? p_comma : p_end;
        tr_i_apply_item(tr_i_trim(p, (size_t)(p_item_end - p)), p_categories, count, p_levels);
        p = p_item_end + 1;
    }
}

}  // namespace

int tr_i_compute_levels(const char *p_spec, const char *p_component,
                        const tr_category_description_t *p_categories, qx_uint32_t count,
                        qx_uint8_t *p_levels) {
    for (qx_uint32_t i = 0; i < count; ++i) {
        p_levels[i] = tr_i_clamp(p_categories[i].default_level_of_detail,
                                 p_categories[i].minimum_level_of_detail);
    }
    if (p_spec != nullptr) {
        const char *p = p_spec;
        const char *p_end = p_spec + strlen(p_spec);
        while (p <= p_end) {
            const char *p_semicolon = (const char *)memchr(p, ';', (size_t)(p_end - p));
            const char *p_entry_end = p_semicolon != nullptr ? p_semicolon : p_end;
            tr_i_apply_entry(tr_i_trim(p, (size_t)(p_entry_end - p)), p_component, p_categories,
                             count, p_levels);
            p = p_entry_end + 1;
        }
    }
    for (qx_uint32_t i = 0; i < count; ++i) {
        if (p_levels[i] != 0) return 1;
    }
    return 0;
}
