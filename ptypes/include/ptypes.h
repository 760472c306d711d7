// Strings, object lists and orderly stops: the part of the PTypes interface that the driver
// uses. Nothing here locks; an object belongs to one thread at a time.
#pragma once

#include <deque>
#include <string>

namespace pt {

using large = long long;
using uint = unsigned int;

// Writes a line break, "Internal [", the code as at least four hexadecimal digits, "]: ", the
// message and a line break to standard error, then ends the process with exit(code).
[[noreturn]] void fatal(int code, const char* message);

// Base of everything that an objlist can hold.
class unknown {
  public:
    unknown() = default;
    unknown(const unknown&) = default;
    unknown& operator=(const unknown&) = default;
    virtual ~unknown();
};

// A text of bytes; may contain zero bytes. The pointers that it converts to end with a zero byte
// and stay valid until the string changes.
class string {
  public:
    string() = default;
    string(const char* text);              // null counts as empty
    string(const char* text, int length);  // a length of 0 or less gives an empty string
    string(char character);

    string& operator+=(const string& other);
    string& operator+=(const char* other);
    string& operator+=(char character);

    operator const char*() const { return bytes.c_str(); }
    operator const unsigned char*() const;

    friend int length(const string& text);
    friend bool operator==(const string& left, const string& right);

  private:
    std::string bytes;
};

int length(const string& text);

string operator+(string left, const string& right);
string operator+(string left, const char* right);
string operator+(string left, char right);
string operator+(const char* left, const string& right);
string operator+(char left, const string& right);

bool operator==(const string& left, const string& right);
bool operator==(const string& left, const char* right);
bool operator==(const char* left, const string& right);
bool operator==(const string& left, char right);
bool operator==(char left, const string& right);
bool operator!=(const string& left, const string& right);
bool operator!=(const string& left, const char* right);
bool operator!=(const char* left, const string& right);
bool operator!=(const string& left, char right);
bool operator!=(char left, const string& right);

// A list of object pointers by index. With ownobjects it deletes the objects that it loses (del,
// clear, destructor); without, it never deletes any. Adding and taking at either end costs the
// same however long the list is. An index out of range is fatal.
class objlist {
  public:
    objlist() : objlist(false) {}
    explicit objlist(bool ownobjects) : ownsObjects(ownobjects) {}
    objlist(const objlist&) = delete;
    objlist& operator=(const objlist&) = delete;
    ~objlist();

    friend int add(objlist& list, unknown* object);
    friend void ins(objlist& list, int index, unknown* object);
    friend unknown* get(const objlist& list, int index);
    friend void del(objlist& list, int index);
    friend int length(const objlist& list);
    friend void clear(objlist& list);

  private:
    std::deque<unknown*> objects;
    bool ownsObjects;
};

int add(objlist& list, unknown* object);              // appends; the index of the new item
void ins(objlist& list, int index, unknown* object);  // before index; 0 to length
unknown* get(const objlist& list, int index);
void del(objlist& list, int index);
int length(const objlist& list);
void clear(objlist& list);

}  // namespace pt
