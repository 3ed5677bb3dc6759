// kolt-clerkd: a small clerk verification server for tests and
// demonstrations. Listens on 127.0.0.1, reads one XML request per
// connection (up to "</koltes>"), parses it with libxml2 and answers from
// its clerk file (JSON): verification mode queries, password changes
// (written back to the file) and fingerprint checks. On request it
// misbehaves: split answers, garbage, no end mark, silence. See
// sim/README.md.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <getopt.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitFailed = 1;

// Result codes of the answers.
constexpr int kUnknownClerk = 90;
constexpr int kEmptyPassword = 91;
constexpr int kNotSaved = 92;
constexpr int kBadFeature = 93;
constexpr int kUnknownFlag = 97;
constexpr int kNotWellFormed = 99;

struct Options {
    int port = 0;
    std::string data;
    std::string fault = "none";
    int segments = 3;
    int delay_ms = 50;
    int threshold = 80;  // per cent of equal bytes for a match
    int read_ms = 5000;  // how long a request may take to arrive
    bool quiet = false;
};

struct Clerk {
    std::string bankcode, clerknum, password, feature, fault;
    int mode = 0;
};

Options g_opt;
std::mutex g_mutex;  // the clerk file and its contents

void usage(std::FILE* to) {
    std::fputs(
        "usage: kolt-clerkd --data FILE [options]\n"
        "  Clerk verification server on 127.0.0.1; prints \"kolt-clerkd listening on 127.0.0.1:PORT\".\n"
        "  --data FILE         clerk file (JSON, see sim/README.md); password changes are written back\n"
        "  --port N            TCP port (default 0: any free port)\n"
        "  --fault MODE        none | split | garbage | cut | no-end | silent | bare | empty-result | no-response\n"
        "                      (a clerk's own \"fault\" in the file wins for its requests)\n"
        "  --segments N        split: number of segments (default 3)\n"
        "  --delay-ms MS       split: pause between segments (default 50)\n"
        "  --threshold PCT     fingerprint match: share of equal feature bytes (default 80)\n"
        "  --read-ms MS        time a request may take to arrive (default 5000)\n"
        "  --quiet             no report on standard error\n"
        "  --help              this text\n",
        to);
}

[[noreturn]] void bad_usage(const std::string& what) {
    std::fprintf(stderr, "kolt-clerkd: %s\n", what.c_str());
    usage(stderr);
    std::exit(kExitUsage);
}

void report(const std::string& line) {
    if (g_opt.quiet) return;
    std::fprintf(stderr, "kolt-clerkd: %s\n", line.c_str());
    std::fflush(stderr);
}

std::string json_text(const cJSON* item, const char* name) {
    const cJSON* v = cJSON_GetObjectItemCaseSensitive(item, name);
    return cJSON_IsString(v) ? std::string(v->valuestring) : std::string();
}

std::optional<std::vector<Clerk>> load(const std::string& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::stringstream ss;
    ss << in.rdbuf();
    cJSON* root = cJSON_Parse(ss.str().c_str());
    if (root == nullptr) return std::nullopt;
    std::vector<Clerk> out;
    const cJSON* list = cJSON_GetObjectItemCaseSensitive(root, "clerks");
    const cJSON* c = nullptr;
    cJSON_ArrayForEach(c, list) {
        Clerk k;
        k.bankcode = json_text(c, "bankcode");
        k.clerknum = json_text(c, "clerknum");
        k.password = json_text(c, "password");
        k.feature = json_text(c, "feature");
        k.fault = json_text(c, "fault");
        const cJSON* m = cJSON_GetObjectItemCaseSensitive(c, "mode");
        k.mode = cJSON_IsNumber(m) ? m->valueint : 0;
        out.push_back(k);
    }
    cJSON_Delete(root);
    return out;
}

bool save(const std::string& path, const std::vector<Clerk>& clerks) {
    cJSON* root = cJSON_CreateObject();
    cJSON* list = cJSON_AddArrayToObject(root, "clerks");
    for (const Clerk& k : clerks) {
        cJSON* c = cJSON_CreateObject();
        cJSON_AddStringToObject(c, "bankcode", k.bankcode.c_str());
        cJSON_AddStringToObject(c, "clerknum", k.clerknum.c_str());
        cJSON_AddStringToObject(c, "password", k.password.c_str());
        cJSON_AddNumberToObject(c, "mode", k.mode);
        cJSON_AddStringToObject(c, "feature", k.feature.c_str());
        if (!k.fault.empty()) cJSON_AddStringToObject(c, "fault", k.fault.c_str());
        cJSON_AddItemToArray(list, c);
    }
    char* text = cJSON_Print(root);
    cJSON_Delete(root);
    if (text == nullptr) return false;
    const std::string tmp = path + ".tmp";
    bool ok = false;
    if (std::FILE* fp = std::fopen(tmp.c_str(), "w")) {
        ok = std::fputs(text, fp) >= 0 && std::fputc('\n', fp) != EOF;
        ok = std::fclose(fp) == 0 && ok;
    }
    cJSON_free(text);
    return ok && std::rename(tmp.c_str(), path.c_str()) == 0;
}

std::optional<std::vector<uint8_t>> from_hex(const std::string& hex) {
    if (hex.empty() || hex.size() % 2 != 0) return std::nullopt;
    std::vector<uint8_t> out;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        unsigned v = 0;
        if (std::sscanf(hex.substr(i, 2).c_str(), "%2x", &v) != 1 || !std::isxdigit(static_cast<unsigned char>(hex[i])) ||
            !std::isxdigit(static_cast<unsigned char>(hex[i + 1])))
            return std::nullopt;
        out.push_back(static_cast<uint8_t>(v));
    }
    return out;
}

// The similarity rule: bytes equal at the same position, in per cent of the
// longer of the two feature records.
int similarity(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    const std::size_t n = std::max(a.size(), b.size());
    if (n == 0) return 0;
    std::size_t same = 0;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) same += a[i] == b[i];
    return static_cast<int>(same * 100 / n);
}

std::string escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else if (c == '&') out += "&amp;";
        else if (c == '\n') out += ' ';
        else out += c;
    }
    return out;
}

std::string child_text(xmlNode* parent, const char* name) {
    for (xmlNode* n = parent == nullptr ? nullptr : parent->children; n != nullptr; n = n->next) {
        if (n->type == XML_ELEMENT_NODE && std::strcmp(reinterpret_cast<const char*>(n->name), name) == 0) {
            xmlChar* t = xmlNodeGetContent(n);
            std::string s = t == nullptr ? "" : reinterpret_cast<const char*>(t);
            xmlFree(t);
            return s;
        }
    }
    return {};
}

xmlNode* child(xmlNode* parent, const char* name) {
    for (xmlNode* n = parent == nullptr ? nullptr : parent->children; n != nullptr; n = n->next)
        if (n->type == XML_ELEMENT_NODE && std::strcmp(reinterpret_cast<const char*>(n->name), name) == 0) return n;
    return nullptr;
}

constexpr const char* kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

struct Reply {
    std::string body;  // between <koltes> and </koltes>
    std::string fault;
};

Reply handle(const std::string& request) {
    Reply r;
    r.fault = g_opt.fault;
    xmlParserCtxtPtr ctxt = xmlNewParserCtxt();
    xmlDocPtr doc = ctxt == nullptr ? nullptr
                                    : xmlCtxtReadMemory(ctxt, request.data(), static_cast<int>(request.size()),
                                                        "request.xml", nullptr,
                                                        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (doc == nullptr) {
        std::string msg = "parser failed";
        if (ctxt != nullptr) {
            const xmlError* e = xmlCtxtGetLastError(ctxt);
            if (e != nullptr && e->message != nullptr) {
                msg = e->message;
                while (!msg.empty() && (msg.back() == '\n' || msg.back() == ' ')) msg.pop_back();
                msg = "line " + std::to_string(e->line) + ": " + msg;
            }
        }
        if (ctxt != nullptr) xmlFreeParserCtxt(ctxt);
        report("request not well-formed: " + msg);
        const std::string code = std::to_string(kNotWellFormed);
        r.body = "<result>" + code + "</result><msgflagresult>" + code + "</msgflagresult><updatepwdresult>" + code +
                 "</updatepwdresult><error>" + escape(msg) + "</error>";
        return r;
    }
    xmlFreeParserCtxt(ctxt);
    xmlNode* req = child(xmlDocGetRootElement(doc), "request");
    const std::string bank = child_text(req, "bankcode");
    const std::string num = child_text(req, "clerknum");
    const std::string flag = child_text(req, "msgflag");
    const std::string password = child_text(req, "password");
    const std::string feature = child_text(req, "fingerprint");
    xmlFreeDoc(doc);
    report("request: msgflag=" + flag + " bankcode=" + bank + " clerknum=" + num);

    std::lock_guard<std::mutex> lock(g_mutex);
    auto clerks = load(g_opt.data);
    Clerk* clerk = nullptr;
    if (clerks)
        for (Clerk& k : *clerks)
            if (k.bankcode == bank && k.clerknum == num) clerk = &k;
    if (clerk != nullptr && !clerk->fault.empty()) r.fault = clerk->fault;
    auto num_el = [](const char* name, int v) {
        return std::string("<") + name + ">" + std::to_string(v) + "</" + name + ">";
    };
    if (flag == "0") {
        r.body = num_el("msgflagresult", clerk == nullptr ? kUnknownClerk : clerk->mode);
    } else if (flag == "1") {
        int code = 0;
        if (clerk == nullptr) code = kUnknownClerk;
        else if (password.empty()) code = kEmptyPassword;
        else {
            clerk->password = password;
            code = save(g_opt.data, *clerks) ? 0 : kNotSaved;
            if (code == 0) report("password of " + bank + "/" + num + " changed");
        }
        r.body = num_el("updatepwdresult", code);
    } else if (flag == "2") {
        int code = 0;
        std::string pw;
        const auto got = from_hex(feature);
        const auto enrolled = clerk == nullptr ? std::nullopt : from_hex(clerk->feature);
        if (clerk == nullptr) code = kUnknownClerk;
        else if (!got || !enrolled) code = kBadFeature;
        else {
            const int s = similarity(*got, *enrolled);
            report("fingerprint of " + bank + "/" + num + ": " + std::to_string(s) + "% equal");
            code = s >= g_opt.threshold ? 0 : 1;
            if (code == 0) pw = clerk->password;
        }
        r.body = num_el("result", code) + "<response><password>" + escape(pw) + "</password></response>";
    } else {
        r.body = num_el("result", kUnknownFlag) + num_el("msgflagresult", kUnknownFlag) +
                 num_el("updatepwdresult", kUnknownFlag);
    }
    if (r.fault == "bare") r.body.clear();
    if (r.fault == "empty-result")
        for (const char* name : {"result", "msgflagresult", "updatepwdresult"}) {
            const std::string open = std::string("<") + name + ">", close = std::string("</") + name + ">";
            const auto a = r.body.find(open);
            const auto b = r.body.find(close);
            if (a != std::string::npos && b != std::string::npos) r.body.erase(a + open.size(), b - a - open.size());
        }
    if (r.fault == "no-response") {
        const auto a = r.body.find("<response>");
        if (a != std::string::npos) r.body.erase(a);
    }
    return r;
}

bool send_all(int fd, const std::string& s) {
    std::size_t at = 0;
    while (at < s.size()) {
        const ssize_t n = ::send(fd, s.data() + at, s.size() - at, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        at += static_cast<std::size_t>(n);
    }
    return true;
}

// Waits until the client closes (or 10 minutes pass).
void hold(int fd) {
    char buf[256];
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, 600000) > 0) {
        if (::recv(fd, buf, sizeof buf, 0) <= 0) break;
    }
}

void serve(int fd) {
    std::string request;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(g_opt.read_ms);
    char buf[4096];
    while (request.find("</koltes>") == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        request.append(buf, static_cast<std::size_t>(n));
    }
    if (request.empty()) {
        ::close(fd);
        return;
    }
    const Reply r = handle(request);
    const std::string answer = std::string(kDecl) + "<koltes>" + r.body + "</koltes>";
    if (r.fault == "silent") {
        report("staying silent");
        hold(fd);
    } else if (r.fault == "garbage") {
        send_all(fd, "\x01\x02 not an answer at all \xff\xfe\n");
    } else if (r.fault == "cut") {
        send_all(fd, answer.substr(0, answer.size() / 2));
    } else if (r.fault == "no-end") {
        send_all(fd, answer.substr(0, answer.size() - std::strlen("</koltes>")));
        hold(fd);
    } else if (r.fault == "split") {
        const int parts = std::max(1, g_opt.segments);
        const std::size_t step = (answer.size() + parts - 1) / parts;
        for (std::size_t at = 0; at < answer.size(); at += step) {
            if (at != 0) std::this_thread::sleep_for(std::chrono::milliseconds(g_opt.delay_ms));
            if (!send_all(fd, answer.substr(at, step))) break;
        }
    } else {
        send_all(fd, answer);
    }
    ::close(fd);
}

int int_arg(const char* option, const char* text) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 0 || v > 65535 * 1000L) bad_usage(std::string(option) + " takes a number");
    return static_cast<int>(v);
}

}  // namespace

int main(int argc, char** argv) {
    static const option longs[] = {{"data", required_argument, nullptr, 'd'},
                                   {"port", required_argument, nullptr, 'p'},
                                   {"fault", required_argument, nullptr, 'f'},
                                   {"segments", required_argument, nullptr, 's'},
                                   {"delay-ms", required_argument, nullptr, 'D'},
                                   {"threshold", required_argument, nullptr, 't'},
                                   {"read-ms", required_argument, nullptr, 'r'},
                                   {"quiet", no_argument, nullptr, 'q'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    int c = 0;
    while ((c = ::getopt_long(argc, argv, "", longs, nullptr)) != -1) {
        switch (c) {
            case 'd': g_opt.data = optarg; break;
            case 'p': g_opt.port = int_arg("--port", optarg); break;
            case 'f': g_opt.fault = optarg; break;
            case 's': g_opt.segments = int_arg("--segments", optarg); break;
            case 'D': g_opt.delay_ms = int_arg("--delay-ms", optarg); break;
            case 't': g_opt.threshold = int_arg("--threshold", optarg); break;
            case 'r': g_opt.read_ms = int_arg("--read-ms", optarg); break;
            case 'q': g_opt.quiet = true; break;
            case 'h': usage(stdout); return 0;
            default: bad_usage("unknown option");
        }
    }
    if (optind != argc) bad_usage("unexpected argument");
    if (g_opt.data.empty()) bad_usage("--data is required");
    static const char* faults[] = {"none", "split", "garbage", "cut", "no-end", "silent", "bare", "empty-result", "no-response"};
    if (std::find_if(std::begin(faults), std::end(faults), [](const char* f) { return g_opt.fault == f; }) ==
        std::end(faults))
        bad_usage("unknown fault " + g_opt.fault);
    if (!load(g_opt.data)) {
        std::fprintf(stderr, "kolt-clerkd: cannot read the clerk file %s\n", g_opt.data.c_str());
        return kExitFailed;
    }
    xmlInitParser();

    const int lfd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    ::setsockopt(lfd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(g_opt.port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (lfd < 0 || ::bind(lfd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(lfd, 16) != 0 ||
        ::getsockname(lfd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        std::perror("kolt-clerkd: listen");
        return kExitFailed;
    }
    std::printf("kolt-clerkd listening on 127.0.0.1:%d\n", ntohs(addr.sin_port));
    std::fflush(stdout);
    for (;;) {
        const int fd = ::accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            std::perror("kolt-clerkd: accept");
            return kExitFailed;
        }
        std::thread(serve, fd).detach();
    }
}
