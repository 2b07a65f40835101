#include "store.h"

#include <sqlite3.h>

namespace shop {
namespace {

// One prepared statement, run once.
class Statement {
 public:
  Statement(sqlite3* database, const char* sql) : database_(database) {
    Check(sqlite3_prepare_v2(database, sql, -1, &statement_, nullptr) == SQLITE_OK);
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(int64_t number) {
    Check(sqlite3_bind_int64(statement_, ++bound_, number) == SQLITE_OK);
    return *this;
  }
  Statement& Bind(const std::string& text) {
    Check(sqlite3_bind_text(statement_, ++bound_, text.c_str(), -1, SQLITE_TRANSIENT) == SQLITE_OK);
    return *this;
  }

  /// Whether there is one more row.
  bool Step() {
    const int code = sqlite3_step(statement_);
    Check(code == SQLITE_ROW || code == SQLITE_DONE);
    return code == SQLITE_ROW;
  }

  int64_t Number(int column) { return sqlite3_column_int64(statement_, column); }
  std::string Text(int column) {
    const auto* const text = sqlite3_column_text(statement_, column);
    return text == nullptr ? std::string() : reinterpret_cast<const char*>(text);
  }

 private:
  void Check(bool done) const {
    if (!done) throw StoreError(sqlite3_errmsg(database_));
  }

  sqlite3* const database_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
};

constexpr char kTables[] =
    "CREATE TABLE IF NOT EXISTS products (id INTEGER PRIMARY KEY, name TEXT, stock INTEGER);"
    "CREATE TABLE IF NOT EXISTS orders (id INTEGER PRIMARY KEY, product INTEGER, quantity INTEGER,"
    " state TEXT);";

}  // namespace

Store::Store(const std::string& path) {
  if (sqlite3_open(path.c_str(), &database_) == SQLITE_OK &&
      sqlite3_exec(database_, kTables, nullptr, nullptr, nullptr) == SQLITE_OK) {
    return;
  }
  const std::string reason = sqlite3_errmsg(database_);
  sqlite3_close(database_);
  throw StoreError(reason);
}

Store::~Store() { sqlite3_close(database_); }

void Store::Deliver(int64_t product, const std::string& name, int64_t quantity) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Statement(database_,
            "INSERT INTO products VALUES (?, ?, ?)"
            " ON CONFLICT (id) DO UPDATE SET stock = stock + excluded.stock")
      .Bind(product)
      .Bind(name)
      .Bind(quantity)
      .Step();
}

std::optional<Product> Store::FindProduct(int64_t product) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Statement select(database_, "SELECT name, stock FROM products WHERE id = ?");
  if (!select.Bind(product).Step()) return std::nullopt;
  return Product{select.Text(0), select.Number(1)};
}

int64_t Store::AddOrder(int64_t product, int64_t quantity) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Statement(database_, "INSERT INTO orders (product, quantity, state) VALUES (?, ?, 'new')")
      .Bind(product)
      .Bind(quantity)
      .Step();
  return sqlite3_last_insert_rowid(database_);
}

void Store::DropOrder(int64_t order) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Statement(database_, "DELETE FROM orders WHERE id = ?").Bind(order).Step();
}

std::optional<std::string> Store::OrderState(int64_t order) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Statement select(database_, "SELECT state FROM orders WHERE id = ?");
  if (!select.Bind(order).Step()) return std::nullopt;
  return select.Text(0);
}

bool Store::PackOrder(int64_t order) {
  const std::lock_guard<std::mutex> guard(mutex_);
  Statement(database_,
            "UPDATE products SET stock = stock - o.quantity FROM orders o"
            " WHERE o.id = ? AND products.id = o.product AND stock >= o.quantity")
      .Bind(order)
      .Step();
  const bool packed = sqlite3_changes(database_) == 1;
  Statement(database_, "UPDATE orders SET state = ? WHERE id = ?")
      .Bind(std::string(packed ? "packed" : "sold out"))
      .Bind(order)
      .Step();
  return packed;
}

}  // namespace shop
