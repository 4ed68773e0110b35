// What the channel's cryptography costs on this machine: which cipher the daemon will ask for, and
// the CPU time of sealing and opening TLS records with each. Needs OpenSSL alone, so that it builds
// on a small board:
//
//   g++ -std=c++20 -O2 -I. bench/crypto.cpp platform/nopoll/cipher_order.cpp -lssl -lcrypto
//
// Failure  a line on standard error and status 1.
#include "platform/nopoll/cipher_order.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <string>
#include <vector>

namespace {

constexpr std::size_t RECORD = 16384; // the most that a TLS record carries
constexpr std::size_t RECORDS = 4;    // worked on in turn: about a message of the daemon
constexpr std::size_t NONCE = 12;
constexpr std::size_t TAG = 16;
constexpr std::size_t HEAD = 5; // of a record, authenticated with it
constexpr int ROUNDS = 31;
constexpr double WINDOW_S = 0.04;
constexpr double LINE_MBS = 12.5; // 100 Mbit/s

struct SUITE_T {
    const char *name;
    const EVP_CIPHER *(*cipher)();
    std::size_t key_size;
};
constexpr SUITE_T SUITES[] = {
    {"TLS_AES_128_GCM_SHA256", EVP_aes_128_gcm, 16},
    {"TLS_AES_256_GCM_SHA384", EVP_aes_256_gcm, 32},
    {"TLS_CHACHA20_POLY1305_SHA256", EVP_chacha20_poly1305, 32},
};

struct FREE_CONTEXT_T {
    void operator()(SSL_CTX *context) const noexcept
    {
        SSL_CTX_free(context);
    }
    void operator()(EVP_CIPHER_CTX *context) const noexcept
    {
        EVP_CIPHER_CTX_free(context);
    }
};
using SslContextPtr = std::unique_ptr<SSL_CTX, FREE_CONTEXT_T>;
using CipherContextPtr = std::unique_ptr<EVP_CIPHER_CTX, FREE_CONTEXT_T>;

void require(bool good, const char *what)
{
    if (good) return;
    (void)std::fprintf(stderr, "bench_crypto: %s\n", what);
    std::exit(1);
}

double cpuTime()
{
    timespec time{};
    require(::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time) == 0, "no clock of the CPU time");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// ---- sealing and opening

struct WORK_T {
    const SUITE_T *suite;
    bool seals;
    CipherContextPtr context;
    std::vector<double> samples; // CPU seconds per GB
};

WORK_T prepare(const SUITE_T &suite, bool seals)
{
    const std::vector<unsigned char> key(suite.key_size, 'k');
    WORK_T work{&suite, seals, CipherContextPtr{EVP_CIPHER_CTX_new()}, {}};
    require(work.context && EVP_CipherInit_ex(work.context.get(), suite.cipher(), nullptr,
                                              key.data(), nullptr, seals ? 1 : 0) == 1,
            "a cipher that this OpenSSL does not have");
    return work;
}

// What EVP says of a record opened is not looked at: the cost is the same, and nothing was sealed.
void workOnRecord(const WORK_T &work, unsigned char *record, std::uint64_t number)
{
    EVP_CIPHER_CTX *const context = work.context.get();
    unsigned char nonce[NONCE] = {};
    std::copy_n(reinterpret_cast<const unsigned char *>(&number), sizeof number, nonce);
    const unsigned char head[HEAD] = {23, 3, 3, 64, 16};
    unsigned char tag[TAG] = {};
    int size = 0;
    require(EVP_CipherInit_ex(context, nullptr, nullptr, nullptr, nonce, -1) == 1 &&
                EVP_CipherUpdate(context, nullptr, &size, head, HEAD) == 1 &&
                EVP_CipherUpdate(context, record, &size, record, RECORD) == 1,
            "a record that EVP refuses");
    if (!work.seals)
        require(EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_SET_TAG, TAG, tag) == 1, "tag");
    (void)EVP_CipherFinal_ex(context, record + RECORD, &size);
    if (work.seals)
        require(EVP_CIPHER_CTX_ctrl(context, EVP_CTRL_AEAD_GET_TAG, TAG, tag) == 1, "tag");
}

void measureOnce(WORK_T &work, std::vector<unsigned char> &records)
{
    std::uint64_t count = 0;
    const double start = cpuTime();
    double spent = 0;
    while (spent < WINDOW_S) {
        for (std::size_t i = 0; i < RECORDS; ++i)
            workOnRecord(work, records.data() + i * (RECORD + TAG), count++);
        spent = cpuTime() - start;
    }
    work.samples.push_back(spent / static_cast<double>(count * RECORD) * 1e9);
}

// In turn, so that what disturbs the machine disturbs all alike.
std::vector<WORK_T> measure()
{
    std::vector<WORK_T> works;
    for (const SUITE_T &suite : SUITES)
        for (const bool seals : {true, false})
            works.push_back(prepare(suite, seals));
    std::vector<unsigned char> records(RECORDS * (RECORD + TAG));
    for (int round = 0; round < ROUNDS; ++round)
        for (WORK_T &work : works)
            measureOnce(work, records);
    for (WORK_T &work : works)
        std::sort(work.samples.begin(), work.samples.end());
    return works;
}

double median(const WORK_T &work)
{
    return work.samples[work.samples.size() / 2];
}

// ---- what the daemon asks for

// The first of TLS 1.3 and of TLS 1.2 in the daemon's own order.
std::vector<std::string> firstCiphers()
{
    const SslContextPtr context{SSL_CTX_new(TLS_client_method())};
    require(context != nullptr, "no TLS");
    ws::orderCiphers(context.get());
    std::string newer;
    std::string older;
    const STACK_OF(SSL_CIPHER) *const offered = SSL_CTX_get_ciphers(context.get());
    for (int i = 0; i < sk_SSL_CIPHER_num(offered); ++i) {
        const SSL_CIPHER *const cipher = sk_SSL_CIPHER_value(offered, i);
        std::string &first = SSL_CIPHER_get_kx_nid(cipher) == NID_kx_any ? newer : older;
        if (first.empty()) first = SSL_CIPHER_get_name(cipher);
    }
    return {newer, older};
}

const char *aesInWords(const char *settings)
{
    switch (settings != nullptr ? ws::aesUnitOf(settings) : ws::AES_UNIT::UNKNOWN) {
    case ws::AES_UNIT::THERE:
        return "there";
    case ws::AES_UNIT::MISSING:
        return "missing";
    default:
        return "unknown";
    }
}

void printTable(const std::vector<WORK_T> &works)
{
    (void)std::printf("\n%-30s %5s %10s %21s %8s\n", "suite", "", "CPU s/GB", "middle 95 %",
                      "MB/s");
    for (const WORK_T &work : works) {
        const std::size_t cut = work.samples.size() / 40;
        (void)std::printf("%-30s %5s %10.3f %10.3f %10.3f %8.0f\n", work.suite->name,
                          work.seals ? "seal" : "open", median(work), work.samples[cut],
                          work.samples[work.samples.size() - 1 - cut], 1e3 / median(work));
    }
}

// The one that costs least in both directions together.
const SUITE_T *cheapestOf(const std::vector<WORK_T> &works, double (&cost)[std::size(SUITES)])
{
    for (const WORK_T &work : works)
        cost[work.suite - SUITES] += median(work) / 2;
    return SUITES + (std::min_element(std::begin(cost), std::end(cost)) - std::begin(cost));
}

void printMeaning(const std::vector<WORK_T> &works, const std::string &asked)
{
    double cost[std::size(SUITES)] = {};
    const SUITE_T *const cheapest = cheapestOf(works, cost);
    const auto *const suite = std::find_if(std::begin(SUITES), std::end(SUITES),
                                           [&](const SUITE_T &row) { return row.name == asked; });
    if (suite == std::end(SUITES)) return;
    const double asked_cost = cost[suite - SUITES];
    (void)std::printf("\nA GB costs %.2f s of one core with it, so that cryptography alone allows "
                      "%.0f MB/s;\na line of 100 Mbit/s takes %.1f %% of a core for it.\n",
                      asked_cost, 1e3 / asked_cost, LINE_MBS * asked_cost / 10);
    if (suite == cheapest)
        (void)std::printf("No other suite costs less here.\n");
    else
        (void)std::printf("%s would cost %.2f s/GB here.\n", cheapest->name,
                          cost[cheapest - SUITES]);
}

} // namespace

int main()
{
    const char *const settings = OPENSSL_info(OPENSSL_INFO_CPU_SETTINGS);
    const std::vector<std::string> asked = firstCiphers();
    (void)std::printf("%s; %s; AES instructions: %s.\n"
                      "The daemon asks for %s first, with a server of TLS 1.2 for\n%s.\n",
                      OpenSSL_version(OPENSSL_VERSION), settings != nullptr ? settings : "-",
                      aesInWords(settings), asked[0].c_str(), asked[1].c_str());
    (void)std::fflush(stdout);
    const std::vector<WORK_T> works = measure();
    printTable(works);
    printMeaning(works, asked[0]);
    return 0;
}
