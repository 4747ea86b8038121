// icu.cpp -- this host's ICU, by the names of version 4.4.
#include "../rows.h"

#include <unicode/putil.h>
#include <unicode/ucnv.h>

namespace {

const Row ROWS[] = {
    {"UCNV_FROM_U_CALLBACK_SKIP_44", RowAddress(&UCNV_FROM_U_CALLBACK_SKIP)},
    {"UCNV_FROM_U_CALLBACK_STOP_44", RowAddress(&UCNV_FROM_U_CALLBACK_STOP)},
    {"UCNV_FROM_U_CALLBACK_SUBSTITUTE_44", RowAddress(&UCNV_FROM_U_CALLBACK_SUBSTITUTE)},
    {"UCNV_TO_U_CALLBACK_SKIP_44", RowAddress(&UCNV_TO_U_CALLBACK_SKIP)},
    {"UCNV_TO_U_CALLBACK_STOP_44", RowAddress(&UCNV_TO_U_CALLBACK_STOP)},
    {"UCNV_TO_U_CALLBACK_SUBSTITUTE_44", RowAddress(&UCNV_TO_U_CALLBACK_SUBSTITUTE)},
    {"u_setDataDirectory_44", RowAddress(&u_setDataDirectory)},
    {"ucnv_close_44", RowAddress(&ucnv_close)},
    {"ucnv_convertEx_44", RowAddress(&ucnv_convertEx)},
    {"ucnv_open_44", RowAddress(&ucnv_open)},
    {"ucnv_setFromUCallBack_44", RowAddress(&ucnv_setFromUCallBack)},
    {"ucnv_setToUCallBack_44", RowAddress(&ucnv_setToUCallBack)},
    {"ucnv_toUChars_44", RowAddress(&ucnv_toUChars)},
};

} // namespace

Rows IcuRows() { return ROWS; }
