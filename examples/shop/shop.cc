#include "shop.h"

#include <httplib.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <utility>

namespace shop {
namespace {

void Answer(httplib::Response& response, int status, const std::string& text) {
  response.status = status;
  response.set_content(text + "\n", "text/plain");
}

int64_t NumberOf(const std::string& text) { return std::strtoll(text.c_str(), nullptr, 10); }

}  // namespace

Shop::Shop(tidegate::Metrics& metrics, const ShopOptions& options)
    : requests_(metrics.Counter("requests", {"route", "status"})),
      latency_(metrics.Timer("latency", {"route"})),
      orders_(metrics.Counter("orders", {"state"})),
      packing_(metrics.Timer("packing")),
      in_flight_(metrics.InFlight("in_flight")),
      store_errors_(metrics.Errors("store_errors", {"at"})),
      store_(options.database),
      packers_(options.packers, options.max_waiting),
      queue_length_(metrics.Sample("queue.length",
                                   [this] { return static_cast<double>(packers_.Length()); })),
      server_(std::make_unique<httplib::Server>()) {
  AddRoutes();
  port_ = options.port;
  const bool bound = port_ != 0 ? server_->bind_to_port("127.0.0.1", port_)
                                : (port_ = server_->bind_to_any_port("127.0.0.1")) > 0;
  if (!bound) throw std::runtime_error("the port is taken");
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  while (!server_->is_running()) {  // it cannot be stopped earlier
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

Shop::~Shop() {
  server_->stop();
  thread_.join();
}

void Shop::AddRoutes() {
  server_->Get(R"(/products/(\d+))", Watched("product", [this](auto& request, auto& response) {
                 ShowProduct(request, response);
               }));
  server_->Post("/orders", Watched("orders", [this](auto& request, auto& response) {
                  TakeOrder(request, response);
                }));
  server_->Get(R"(/orders/(\d+))", Watched("order", [this](auto& request, auto& response) {
                 ShowOrder(request, response);
               }));
  // The last one takes all others. Their paths are no tags: each stranger could add series.
  server_->Get(
      ".*", Watched("none", [](auto&, auto& response) { Answer(response, 404, "no such page"); }));
}

// All that every request reports is here, and no handler knows of it.
Shop::Handler Shop::Watched(const char* route, Handler handler) {
  return [this, route, handler = std::move(handler)](auto& request, auto& response) {
    const auto scope = in_flight_.Enter();
    auto timer = latency_.Start();
    timer.WithTags({{"route", route}});
    try {
      handler(request, response);
    } catch (const StoreError& error) {
      store_errors_.Count(error.what(), {{"at", route}});
      Answer(response, 500, error.what());
    }
    requests_.Add(1, {{"route", route}, {"status", response.status}});
  };
}

void Shop::ShowProduct(const httplib::Request& request, httplib::Response& response) {
  const std::optional<Product> product = store_.FindProduct(NumberOf(request.matches[1]));
  if (!product) return Answer(response, 404, "no such product");
  Answer(response, 200, product->name + ' ' + std::to_string(product->stock));
}

void Shop::TakeOrder(const httplib::Request& request, httplib::Response& response) {
  const int64_t product = NumberOf(request.get_param_value("product"));
  const int64_t quantity = NumberOf(request.get_param_value("quantity"));
  if (quantity <= 0) return Answer(response, 400, "how many?");
  if (!store_.FindProduct(product)) return Answer(response, 404, "no such product");
  const int64_t order = store_.AddOrder(product, quantity);
  if (!packers_.Submit([this, order] { Pack(order); })) {
    store_.DropOrder(order);
    orders_.Add(1, {{"state", "refused"}});
    return Answer(response, 503, "too many orders");
  }
  Answer(response, 202, std::to_string(order));
}

void Shop::ShowOrder(const httplib::Request& request, httplib::Response& response) {
  const std::optional<std::string> state = store_.OrderState(NumberOf(request.matches[1]));
  if (!state) return Answer(response, 404, "no such order");
  Answer(response, 200, *state);
}

void Shop::Pack(int64_t order) {
  const auto timer = packing_.Start();
  try {
    const bool packed = store_.PackOrder(order);
    orders_.Add(1, {{"state", packed ? "packed" : "sold_out"}});
  } catch (const StoreError& error) {
    store_errors_.Count(error.what(), {{"at", "packing"}});
  }
}

}  // namespace shop
