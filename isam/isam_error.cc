#include "isam/isam_error.h"

#include <cstdarg>
#include <cstring>
#include <string>

namespace {

IsamErrorEntry g_stack[kIsamStackSize];
int g_count = 0;
bool g_tables = true;

struct Text {
  int number;
  const char* text;
};

const Text kErrors[] = {
    {1, "disk lseek error"},
    {2, "disk read error"},
    {3, "file header read failed"},
    {4, "file header write failed"},
    {5, "disk write error"},
    {6, "malloc() failed (out of memory)"},
    {7, "file creat failed"},
    {8, "file open failed"},
    {9, "file close failed"},
    {10, "file exists already"},
    {11, "file does not exist"},
    {12, "file doesn't exist"},
    {13, "file lock failed"},
    {14, "file unlock failed"},
    {15, "record lock failed"},
    {16, "record or file unlock failed"},
    {17, "Incorrect BTree/ISAM file descriptor"},
    {18, "lock list overflow"},
    {19, "another process owns the file"},
    {20, "bad arguments to this function"},
    {21, "mode precludes action"},
    {22, "File/software version mismatch"},
    {23, "Internal inconsistency: call Norvik"},
    {126, "file does not exist"},
    {127, "bad fd given"},
    {128, "bad file type for operation"},
    {129, "readonly file write attempt"},
    {130, "given record less than minimum size"},
    {131, "file count greater than MAXFILES"},
    {132, "invalid record pointer"},
    {133, "Attempt to create a file within a data file"},
    {134, "fsync() call failed"},
    {135, "bad key size"},
    {136, "Requires multi-user support"},
    {137, "Initial header read failed"},
    {138, "File header allocation failed"},
    {139, "File header read failed"},
    {140, "Attempt to open too many files"},
    {141, "Bad record number"},
    {142, "File corruption detected"},
    {143, "Float keys not enabled (uncomment FLOAT_KEYS)"},
    {234, "File exists already"},
    {235, "Attempt to write a read-only file"},
    {236, "Overflow error"},
    {237, "Header read failed (vlen)"},
    {238, "File is empty"},
    {239, "uninitialized function pointer"},
    {344, "incorrect key definition parameter"},
    {345, "bad number of indices"},
    {346, "maximum keys defined (raise MAXIND)"},
    {347, "lioCreat() failed"},
    {348, "no current record defined"},
    {349, "existing record not read yet"},
    {350, "old key returned wrong record number!"},
    {351, "bad index number"},
    {352, "keys point to different records"},
    {353, "maximum record size too small"},
    {354, "key not found"},
    {355, "key insert failed"},
    {356, "key already in index"},
    {357, "new key could not be inserted"},
    {358, "no temporary index file exists"},
    {359, "ffile/vFile operation attempted"},
    {360, "Bad ISAM buffer address"},
    {361, "Buffer usage inconsistent"},
    {362, "Index/data file record count mismatch"},
};

const Text kFunctions[] = {
    {100, "lioCreat()"},     {101, "lioWStash()"},    {102, "lioRStash()"},    {103, "lioOpen()"},
    {104, "lioInxCreat()"},  {105, "lioSetCache()"},  {106, "lioAvl()"},       {108, "lioRead()"},
    {109, "lioWrite()"},     {110, "lioClose()"},     {111, "lioFlush()"},     {112, "lioSize()"},
    {115, "writeHead()"},    {116, "readHead()"},     {117, "readPage()"},     {118, "writePage()"},
    {119, "rdCache()"},      {120, "wrtCache()"},     {121, "flAllCache()"},   {122, "lioFree()"},
    {123, "flCache()"},      {200, "lioSearch()"},    {201, "trInsert()"},     {202, "btreeInsert()"},
    {203, "lioPrev()"},      {204, "lioSrPrtl()"},    {205, "lioSerNum()"},    {206, "lioFirst()"},
    {207, "lioLast()"},      {208, "lioNext()"},      {209, "lioInsert()"},    {210, "lioDelete()"},
    {211, "nodAlloc()"},     {212, "lioSetOrder()"},  {213, "underflow()"},    {214, "getRep()"},
    {215, "btreeSearch()"},  {216, "btreeDelete()"},  {217, "btreeCheck()"},   {300, "bt3Creat()"},
    {301, "keyDefine()"},    {302, "bt3Open()"},      {305, "bt3Close()"},     {306, "bt3Add()"},
    {307, "bt3Sync()"},      {308, "bt3Find()"},      {309, "bt3Write()"},     {310, "bt3SetCur()"},
    {311, "bt3Check()"},     {312, "bt3Start()"},     {313, "bt3End()"},       {314, "bt3Next()"},
    {315, "bt3Prev()"},      {316, "bt3Move()"},      {317, "bt3Select()"},    {318, "bt3Delete()"},
    {319, "bt3FindRel()"},   {320, "bt3InxCreate()"}, {321, "bt3GetCur()"},    {322, "makeKeyDes()"},
    {324, "isamLockUp()"},   {325, "isamUnLock()"},   {326, "bt3AddInx()"},    {327, "bt3DelInx()"},
    {328, "bt3GetLen()"},    {329, "bt3VlCreate()"},  {330, "bt3VlAdd()"},     {331, "bt3VlWrite()"},
    {332, "bt3SetMode()"},   {333, "bt3SetCache()"},  {334, "bt3GetBuff()"},   {335, "bt3FreeBuff()"},
    {336, "bt3DataRead()"},  {337, "buffValidate()"}, {338, "bt3BuffCopy()"},  {339, "bt3Unlink()"},
    {340, "bt3Lock()"},      {341, "bt3MakeList()"},  {342, "bt3FreeList()"},  {343, "bt3FillList()"},
    {400, "vlCreat()"},      {401, "vlOpen()"},       {402, "vlRead()"},       {403, "vlWrite()"},
    {404, "vlFree()"},       {405, "vlClose()"},      {406, "vlFlush()"},      {407, "vlAvl()"},
    {408, "vlStats()"},      {409, "mapSeek()"},      {410, "delSRead()"},     {411, "delSWrite"},
    {412, "delWrite()"},     {413, "delRead()"},      {414, "delSeek()"},      {415, "mapWrite()"},
    {416, "mapRead()"},      {417, "writeVlHead()"},  {418, "readVlHead()"},   {419, "vlDCreat()"},
    {420, "vlDRead()"},      {421, "vlDDelete()"},    {422, "vlLock()"},       {423, "vlUnLock()"},
    {424, "vlLockCheck()"},  {425, "vlSetMode()"},    {426, "vlRStash()"},     {427, "vlWStash()"},
    {428, "vlFixup()"},
};

const char* Find(const Text* table, size_t n, int number) {
  for (size_t i = 0; i < n; ++i)
    if (table[i].number == number) return table[i].text;
  return nullptr;
}

std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n < 0) return {};
  return std::string(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}

}  // namespace

int isam_error(const char* module, int function, int error, int line) {
  int keep = g_count < kIsamStackSize ? g_count : kIsamStackSize - 1;
  std::memmove(&g_stack[1], &g_stack[0], sizeof(IsamErrorEntry) * static_cast<size_t>(keep));
  g_stack[0] = IsamErrorEntry{module ? module : "", function, error, line};
  g_count = keep + 1;
  return -1;
}

int isam_error_count() { return g_count; }

IsamErrorEntry isam_error_at(int i) {
  if (i < 0 || i >= g_count) return {};
  return g_stack[i];
}

int isam_last_error() { return g_count ? g_stack[0].error : 0; }

void isam_error_clear() { g_count = 0; }

const char* isam_error_text(int error) {
  return Find(kErrors, sizeof kErrors / sizeof kErrors[0], error);
}

const char* isam_function_name(int function) {
  return Find(kFunctions, sizeof kFunctions / sizeof kFunctions[0], function);
}

void isam_set_tables(bool installed) { g_tables = installed; }

std::string isam_error_report() {
  std::string out = "\nModule         Function         Line   Message\n";
  out += std::string(62, '-') + "\n";
  for (int i = 0; i < g_count; ++i) {
    const IsamErrorEntry& e = g_stack[i];
    const char* fn = g_tables ? isam_function_name(e.function) : nullptr;
    const char* text = g_tables ? isam_error_text(e.error) : nullptr;
    out += Format("%-15s", e.module);
    out += fn ? Format("%-17s", fn) : Format("Function: %2d     ", e.function);
    out += Format("%-7d", e.line);
    out += text ? Format("%s\n", text) : Format("Error: %2d\n", e.error);
  }
  return out;
}

void isam_print_errors(FILE* out) {
  std::string text = isam_error_report();
  fputs(text.c_str(), out);
}

std::string isam_error_line(const IsamErrorEntry& e) {
  const char* text = g_tables ? isam_error_text(e.error) : nullptr;
  return Format("Error %4d (line %4d, %s): %s", e.error, e.line, e.module, text ? text : "");
}
