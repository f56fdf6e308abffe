// The query pipeline: every query, whoever asked, is checked, run through the policy chain and
// the local tables, and what nobody answered is forwarded and remembered in a pcb.
#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "cache/dpcache.h"
#include "config/dpcfg.h"
#include "ctrl/dp_metrics.h"
#include "ctrl/dp_stats.h"
#include "ctrl/dp_trace.h"
#include "edns/dpedns.h"
#include "endec/dpendec.h"
#include "io/dpio.h"
#include "main/dputl.h"
#include "main/dpxy.h"
#include "main/dpxy_pcb.h"
#include "server/dpsvr.h"

namespace {

constexpr int kRcodeFormErr = 1;
constexpr int kRcodeServFail = 2;
constexpr int kRcodeRefused = 5;
constexpr int32_t kLocalTtl = 30;
constexpr uint32_t kRegistrationStateRequest = 0x10000401;
constexpr const char* kRedirectV4 = "22.22.22.22";
constexpr const char* kRedirectV6 = "2222::22";

// Results of handle_dns_query.
constexpr int kDropped = -5; // answered or dropped by a policy that ends the chain

// Force URL asks the management module at most this many times while it says "not enabled".
uint32_t force_url_count = 10;

// One query on its way: the working packet (its msginf included), who asked, and the image of
// the pcb that remembers it once forwarded.
struct query_ctx {
    dns_pkt& pkt;
    dpxy_pcb& pcb;
    dpxy_pcb_ext& ext; // the image's rare fields
    const dp_peer_addr& client;
    uint32_t source = DP_ANS_FORMAT_ERROR; // who answers, should an answer go out now
    bool answered = false;
};

uint16_t qtype_of(const query_ctx& q) {
    return q.pkt.inf.qtype;
}

void put_client_id(query_ctx& q) {
    q.pkt.buf[0] = static_cast<uint8_t>(q.pcb.client_id >> 8);
    q.pkt.buf[1] = static_cast<uint8_t>(q.pcb.client_id & 0xFF);
}

void count_answer(query_ctx& q) {
    dp_metrics.answers[q.source]++;
    q.answered = true;
}

void send_to_client(query_ctx& q) {
    send_packet_x(&q.client, q.pkt.buf, q.pkt.len);
    count_answer(q);
}

// A policy ended the query, with or without an answer.
int ended(const query_ctx& q) {
    if (!q.answered) dp_metrics.drops[DP_DROP_POLICY]++;
    return kDropped;
}

void error_answer(query_ctx& q, int rcode) {
    put_client_id(q);
    dpendec_compose_error_response(rcode, q.pkt.buf, q.pkt.len);
    send_to_client(q);
}

// An A or AAAA answer with an address text: the new length, -21 for another qtype, -22 / -43
// when the answer cannot be composed.
int address_answer(query_ctx& q, const char* addr) {
    put_client_id(q);
    int len;
    if (qtype_of(q) == DPENDEC_TYPE_A) {
        len = dpendec_compose_a_response(&q.pkt, addr);
        if (len < 0) return -22;
    } else if (qtype_of(q) == DPENDEC_TYPE_AAAA) {
        len = dpendec_compose_aaaa_response(&q.pkt, addr);
        if (len < 0) return -43;
    } else {
        return -21;
    }
    q.pkt.len = static_cast<uint16_t>(len);
    send_to_client(q);
    return 0;
}

// ---- the management module's registration state ----------------------------------------------

struct registration_state {
    char status[5];
    char result[5];
    char reg_url_enable[5];
};

// 0 with the three texts, or the request's negative code.
int ask_registration_state(registration_state* st) {
    uint8_t reply[16] = {};
    const int ret = dpio_request_registration_state(kRegistrationStateRequest, reply, 15);
    if (ret < 0) return ret;
    // Texts of up to four characters at payload offsets 0, 5 and 10.
    dputl_copy_text(st->status, sizeof st->status, reinterpret_cast<const char*>(reply));
    dputl_copy_text(st->result, sizeof st->result, reinterpret_cast<const char*>(reply + 5));
    dputl_copy_text(st->reg_url_enable, sizeof st->reg_url_enable,
                    reinterpret_cast<const char*>(reply + 10));
    return 0;
}

// ---- the chain ---------------------------------------------------------------------------------

int is_query_valid(const msginf& inf) {
    int ret = 0;
    if (inf.ancount != 0)
        ret = -1;
    else if ((inf.flags & DPENDEC_FLAG_QR) != 0)
        ret = -2;
    DPMAIN_TRACE(DP_DETAIL, "ancount=%u isResponse=%u ret=%d\n", inf.ancount,
                 (inf.flags & DPENDEC_FLAG_QR) != 0 ? 1u : 0u, ret);
    return ret;
}

// 0 to go on, kDropped when it answered.
int execute_force_register(query_ctx& q) {
    q.source = DP_ANS_FORCE_REGISTER;
    DPMAIN_TRACE(DP_FUNC, "client_id=0x%x isEnableForceUrl=%d\n", q.pcb.client_id,
                 static_cast<int>(dpcfg_is_force_register_enabled()));
    registration_state st{};
    const int ret = ask_registration_state(&st);
    if (ret < 0) {
        DPMAIN_TRACE(DP_DETAIL, "ret=%d\n", ret);
        return 0;
    }
    DPMAIN_TRACE(DP_DETAIL, "status:[%s], result:[%s]\n", st.status, st.result);
    DPMAIN_TRACE(DP_DETAIL, "%s,%d,,domain name:%s\n", __func__, __LINE__, q.pkt.inf.name);
    if (std::strcmp(st.result, "1") == 0) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp refuse for force url\n", q.pcb.client_id);
        error_answer(q, kRcodeRefused);
        return ended(q);
    }
    const dpxy_client_itf& itf = dpxy_get_client_itf();
    if (qtype_of(q) == DPENDEC_TYPE_A) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp A %s for force url\n", q.pcb.client_id,
                     itf.v4ipstr);
        address_answer(q, itf.v4ipstr);
    } else if (qtype_of(q) == DPENDEC_TYPE_AAAA) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp AAAA %s for force url\n", q.pcb.client_id,
                     itf.v6ipstr);
        address_answer(q, itf.v6ipstr);
    } else {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x qtype=%u\n", q.pcb.client_id, qtype_of(q));
    }
    return ended(q);
}

// Lock-net answers with the gateway's addresses and traces them as force URL does.
int execute_lock_net(query_ctx& q) {
    q.source = DP_ANS_LOCK_NET;
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x isEnableLockNet=%d\n", q.pcb.client_id,
                 static_cast<int>(dpcfg_is_lock_net_enabled()));
    DPMAIN_TRACE(DP_DETAIL, "%s,%d,,domain name:%s\n", __func__, __LINE__, q.pkt.inf.name);
    const dpxy_client_itf& itf = dpxy_get_client_itf();
    if (qtype_of(q) == DPENDEC_TYPE_A) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp A %s for force url\n", q.pcb.client_id,
                     itf.v4ipstr);
        address_answer(q, itf.v4ipstr);
    } else if (qtype_of(q) == DPENDEC_TYPE_AAAA) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp AAAA %s for force url\n", q.pcb.client_id,
                     itf.v6ipstr);
        address_answer(q, itf.v6ipstr);
    }
    return ended(q);
}

int execute_intercept(query_ctx& q) {
    q.source = DP_ANS_INTERCEPT;
    const dpxy_client_itf& itf = dpxy_get_client_itf();
    if (qtype_of(q) == DPENDEC_TYPE_A) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp A %s for intercept\n", q.pcb.client_id,
                     itf.v4ipstr);
        address_answer(q, itf.v4ipstr);
    } else if (qtype_of(q) == DPENDEC_TYPE_AAAA) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp AAAA %s for intercept\n", q.pcb.client_id,
                     itf.v6ipstr);
        address_answer(q, itf.v6ipstr);
    }
    return ended(q);
}

// The redirect answers fixed addresses but traces the gateway's: kept as it has always been.
int execute_redirect(query_ctx& q) {
    q.source = DP_ANS_REDIRECT;
    const dpxy_client_itf& itf = dpxy_get_client_itf();
    if (qtype_of(q) == DPENDEC_TYPE_A) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp A %s for redirect\n", q.pcb.client_id,
                     itf.v4ipstr);
        address_answer(q, kRedirectV4);
    } else if (qtype_of(q) == DPENDEC_TYPE_AAAA) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp AAAA %s for redirect\n", q.pcb.client_id,
                     itf.v6ipstr);
        address_answer(q, kRedirectV6);
    } else {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x qtype=%u\n", q.pcb.client_id, qtype_of(q));
    }
    return ended(q);
}

// A local answer goes back the way the query came.
void answer_by_source(query_ctx& q, const char* value) {
    const uint32_t aaaa = qtype_of(q) == DPENDEC_TYPE_AAAA ? 1 : 0;
    switch (q.pcb.source) {
    case DPXY_SRC_LOCAL:
        dpio_send_csmsg_query_response(aaaa, q.pkt.inf.name, 0, kLocalTtl, value);
        count_answer(q);
        break;
    case DPXY_SRC_MODULE:
        dpio_send_query_response_to_module(q.ext.module_tag, q.ext.module_seq, aaaa, q.pkt.inf.name,
                                           0, kLocalTtl, value);
        count_answer(q);
        break;
    default:
        address_answer(q, value);
        break;
    }
}

// Forwards the query under a D2D name. The codec's rewrite keeps only header and question (with
// room for the rest): what followed the question, the OPT record with the client's MAC option
// above all, goes back behind the new name. The index then follows the new message, while the
// names stay those the client asked: classification and traces speak of them.
void rewrite_question(dns_pkt& pkt, const char* new_name) {
    static uint8_t rest[DPENDEC_MSG_SIZE];
    static msginf fresh;
    msginf& inf = pkt.inf;
    const size_t rest_at = static_cast<size_t>(inf.qd.offset) + inf.qd.rr_len;
    const size_t rest_len = pkt.len > rest_at ? pkt.len - rest_at : 0;
    std::memcpy(rest, pkt.buf + rest_at, rest_len);
    dputl_copy_text(inf.d2d, sizeof inf.d2d, inf.name);
    dpendec_replace_qname(&pkt, new_name);
    // Unchanged (a name too long for the rewrite) it lands where it was.
    if (rest_len == 0 || pkt.len < rest_len) return;
    std::memcpy(pkt.buf + pkt.len - rest_len, rest, rest_len);
    if (dpendec_compose_dns_msg_inf(pkt.buf, pkt.len, &fresh) < 0) return;
    std::memcpy(fresh.name, inf.name, sizeof fresh.name);
    std::memcpy(fresh.hostaddr, inf.hostaddr, sizeof fresh.hostaddr);
    std::memcpy(fresh.d2d, inf.d2d, sizeof fresh.d2d);
    fresh.ttl = inf.ttl;
    inf = fresh;
}

// 1 answered (or refused), -1 not answered: go on.
int answer_from_local_tables(query_ctx& q) {
    msginf& inf = q.pkt.inf;
    char value[256] = "";
    if (dpcfg_is_d2d_feat_enabled() != 0) {
        char new_name[256];
        if (dpcache_find_d2d_name(inf.qtype, inf.name, new_name, sizeof new_name) == 1) {
            const int rslt =
                dpcache_resolve_name_from_local(inf.qtype, new_name, value, sizeof value);
            DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x qtype=%u qname=%s newName=%s rslt=%d inf=%s\n",
                         q.pcb.client_id, inf.qtype, inf.name, new_name, rslt, value);
            if (rslt == DPCACHE_ANSWER_A || rslt == DPCACHE_ANSWER_AAAA) {
                q.source = DP_ANS_D2D;
                answer_by_source(q, value);
                return 1;
            }
            // Ask upstream for the new name; the answer gets the client's name back.
            rewrite_question(q.pkt, new_name);
            return -1;
        }
    }
    const char* key = inf.qtype == DPENDEC_TYPE_PTR ? inf.hostaddr : inf.name;
    const int rslt = dpcache_resolve_name_from_local(inf.qtype, key, value, sizeof value);
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x qtype=%u key=%s rslt=%d inf=%s\n", q.pcb.client_id,
                 inf.qtype, key, rslt, value);
    static constexpr uint32_t kListSource[] = {DP_ANS_WEBGUI_REFUSE, DP_ANS_D2A, DP_ANS_HOSTS,
                                               DP_ANS_DYN_CACHE};
    q.source = kListSource[dpcache_last_answer_list()];
    switch (rslt) {
    case DPCACHE_ANSWER_NONE:
        if (inf.qtype == DPENDEC_TYPE_AAAA && strcasecmp(inf.name, DPCFG_WEBGUI_HOST_NAME) == 0) {
            error_answer(q, kRcodeRefused);
            return 1;
        }
        return -1;
    case DPCACHE_ANSWER_A:
    case DPCACHE_ANSWER_AAAA:
        answer_by_source(q, value);
        return 1;
    case DPCACHE_ANSWER_PTR: {
        put_client_id(q);
        const int len = dpendec_compose_ptr_response(&q.pkt, value);
        if (len < 0) return -1;
        q.pkt.len = static_cast<uint16_t>(len);
        send_to_client(q);
        return 1;
    }
    default:
        return -1;
    }
}

int resolve_query_from_local_cache(query_ctx& q) {
    const int ret = answer_from_local_tables(q);
    DPMAIN_TRACE(DP_DETAIL, "local resolve ret=%d\n", ret);
    return ret;
}

// The reverse name's address is a LAN address other than the gateway's own.
bool is_local_ip(const char* ipstr) {
    DPMAIN_TRACE(DP_DETAIL, "ipstr=%s\n", ipstr);
    in_addr addr;
    if (inet_pton(AF_INET, ipstr, &addr) != 1) return false;
    const dpxy_client_itf& itf = dpxy_get_client_itf();
    return addr.s_addr != itf.v4addr && ((addr.s_addr ^ itf.v4addr) & itf.netmask) == 0;
}

// 0 to go on, kDropped when refused.
int execute_reject_ptr_local_ip(query_ctx& q) {
    q.source = DP_ANS_REJECT_PTR;
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x isEnableRejPtr=%d\n", q.pcb.client_id,
                 static_cast<int>(dpcfg_is_reject_ptr_local_ip_feat_enabled()));
    if (dpcfg_is_reject_ptr_local_ip_feat_enabled() == 0 || qtype_of(q) != DPENDEC_TYPE_PTR)
        return 0;
    if (!is_local_ip(q.pkt.inf.hostaddr)) return 0;
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp refuse for local ip ptr\n", q.pcb.client_id);
    error_answer(q, kRcodeRefused);
    return kDropped;
}

using select_fn = int (*)(dpsvr_select_request*, servset**, servset**);

// One selection and send: the number of servers reached, or the selection's negative result.
int select_and_send(query_ctx& q, dpsvr_select_request& req, select_fn select) {
    servset* set = nullptr;
    servset* dflt = nullptr;
    const int ret = select(&req, &set, &dflt);
    if (ret < 0) return ret;
    return dpsvr_send_query(q.pkt.buf, q.pkt.len, set, dflt);
}

// Sends by client family (or DS-Lite); -2 when the IPv4 classification refused the query.
int send_by_family(query_ctx& q, dpsvr_select_request& req, int* sentnum) {
    *sentnum = 0;
    if (dpcfg_is_dslite_enabled() != 0) {
        *sentnum = std::max(0, select_and_send(q, req, dpsvr_select_v6_server_sets));
        return 0;
    }
    if (req.type == DPIO_PEER_IPV4) {
        const int sent = select_and_send(q, req, dpsvr_select_v4_server_sets);
        if (sent < 0) return -2;
        *sentnum =
            sent != 0 ? sent : std::max(0, select_and_send(q, req, dpsvr_select_v6_server_sets));
        return 0;
    }
    if (req.type == DPIO_PEER_IPV6) {
        const int sent = std::max(0, select_and_send(q, req, dpsvr_select_v6_server_sets));
        *sentnum =
            sent != 0 ? sent : std::max(0, select_and_send(q, req, dpsvr_select_v4_server_sets));
        return 0;
    }
    return 1; // no family: nothing sent, yet counted as forwarded
}

// Nothing could be sent: the management module may want the registration page.
// 0 when it answered or ended the query, -1 to fall through to the server failure.
int execute_force_url(query_ctx& q) {
    q.source = DP_ANS_FORCE_URL;
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x isEnableForceUrl=%d count=%d\n", q.pcb.client_id,
                 static_cast<int>(dpcfg_is_force_url_feat_enabled()),
                 static_cast<int>(force_url_count));
    if (dpcfg_is_force_url_feat_enabled() == 0 || force_url_count < 1) return -1;
    registration_state st{};
    const int ret = ask_registration_state(&st);
    if (ret < 0) {
        DPMAIN_TRACE(DP_DETAIL, "ret=%d\n", ret);
        return -1;
    }
    DPMAIN_TRACE(DP_DETAIL, "status:[%s], result:[%s], regUrlEnable:[%s].\n", st.status, st.result,
                 st.reg_url_enable);
    if (std::strcmp(st.reg_url_enable, "1") != 0) {
        force_url_count--;
        return 0;
    }
    if (std::strcmp(st.status, "1") != 0) {
        const dpxy_client_itf& itf = dpxy_get_client_itf();
        if (qtype_of(q) == DPENDEC_TYPE_A) address_answer(q, itf.v4ipstr);
        if (qtype_of(q) == DPENDEC_TYPE_AAAA) address_answer(q, itf.v6ipstr);
        return 0;
    }
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp refuse for force url\n", q.pcb.client_id);
    error_answer(q, kRcodeRefused);
    return 0;
}

void server_failure(query_ctx& q) {
    q.source = DP_ANS_SERVER_FAILURE;
    put_client_id(q);
    if (dpcfg_is_edns_enabled() != 0) {
        static dns_pkt backup;
        dpendec_copy_pkt(&backup, &q.pkt);
        dpedns_strip_option41(&backup, q.pkt.buf, &q.pkt.len, &q.pkt.inf);
    }
    error_answer(q, kRcodeServFail);
}

int forward_query_to_servers(query_ctx& q) {
    // Hardened mode: a question pending upstream for another client is not sent again.
    if (dpcfg_is_hardened_mode_enabled() != 0) {
        dpxy_hard_note_query(q.pcb, q.pkt);
        const int joined = dpxy_hard_join(q.pcb, q.pkt);
        if (joined != 0) return joined > 0 ? 0 : kDropped;
    }
    // 1. a fresh id towards the servers
    q.pcb.server_id = dputl_get_next_transaction_id();
    q.pkt.buf[0] = static_cast<uint8_t>(q.pcb.server_id >> 8);
    q.pkt.buf[1] = static_cast<uint8_t>(q.pcb.server_id & 0xFF);
    dpsvr_mark_first_dns_query();
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x server_id=0x%x isDslite=%u\n", q.pcb.client_id,
                 q.pcb.server_id, dpcfg_is_dslite_enabled());
    // 2. reverse look-ups of LAN addresses stay in the LAN
    if (execute_reject_ptr_local_ip(q) < 0) return kDropped;
    // 3. 4. classify and send
    dpsvr_select_request req{};
    req.type = q.client.kind;
    std::memcpy(req.addr, q.client.addr, sizeof req.addr);
    dputl_copy_text(req.name, sizeof req.name, q.pkt.inf.name);
    DPMAIN_TRACE(DP_DETAIL, "isDslite=%u type=%d\n", dpcfg_is_dslite_enabled(),
                 static_cast<int>(req.type));
    int sentnum = 0;
    // A TCP client's query goes to the servers over TCP: its answer may be long.
    dpio_expect unrecorded; // hardened mode off: nothing is recorded
    dpio_begin_sends(q.ext.hard != nullptr ? &q.ext.hard->expect : &unrecorded, q.client.tcp != 0);
    dp_metrics_begin_query(&q.pcb.metrics);
    const int sent_ret = send_by_family(q, req, &sentnum);
    dp_metrics_end_query();
    dpio_end_sends();
    if (sent_ret < 0) {
        dp_metrics.drops[DP_DROP_UNCLASSIFIED]++;
        return kDropped;
    }
    const int result = (sentnum > 0 || sent_ret > 0) ? 0 : -1;
    q.pcb.query_count = static_cast<uint8_t>(sentnum);
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x server_id=0x%x sentnum=%d dnsret=%d time=%lu\n",
                 q.pcb.client_id, q.pcb.server_id, sentnum, result,
                 static_cast<unsigned long>(dputl_get_current_time()));
    // 5. 6. nobody reached
    if (result != 0) {
        if (execute_force_url(q) == 0) {
            ended(q);
            return result;
        }
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp server failure to query\n", q.pcb.client_id);
        server_failure(q);
        return result;
    }
    // 7. 8. remember it
    q.pcb.pkt_len = q.pkt.len;
    q.pcb.pkt = q.pkt.buf;
    q.ext.d2d_name = q.pkt.inf.d2d;
    add_proxy_ctrlblk(&q.pcb, result);
    DPMAIN_TRACE(DP_DETAIL, "transid=0x%x ret=0x%x\n", q.pcb.server_id,
                 static_cast<unsigned>(result));
    return 0;
}

} // namespace

int handle_dns_query(int16_t source, const char* module_tag, int32_t module_seq,
                     const dp_peer_addr* client, const uint8_t* packet, uint16_t len) {
    static dns_pkt pkt;
    // 1. the pcb image: who asked and what. It names the working packet; what it holds is copied
    // into storage of the pcb's own when the query is forwarded.
    dpxy_pcb image{};
    dpxy_hard_rec hard;
    dpxy_pcb_ext ext{"", module_tag, module_seq, nullptr, nullptr};
    if (dpcfg_is_hardened_mode_enabled() != 0) {
        std::memset(&hard.do_bit, 0,
                    sizeof hard - offsetof(dpxy_hard_rec, do_bit)); // expect: at sending
        ext.hard = &hard;
    }
    image.ext = &ext;
    const uint16_t copy_len = std::min<uint16_t>(len, DPXY_MAX_PACKET);
    image.client = dpxy_client_ep_of(*client);
    image.client_kind = static_cast<uint8_t>(client->kind);
    image.pkt_len = copy_len;
    image.pkt = pkt.buf;
    image.client_id = copy_len >= 2 ? static_cast<uint16_t>(packet[0] << 8 | packet[1]) : 0;
    image.source = static_cast<int8_t>(source);
    image.edns_mode = DPXY_EDNS_NONE;
    pkt.len = copy_len;
    std::memcpy(pkt.buf, packet, copy_len);
    std::memset(&pkt.inf, 0, sizeof pkt.inf);
    query_ctx q{pkt, image, ext, *client};

    // 2. table bound, before anything else
    if (dpxy_pcb_count() > DPXY_PCB_BOUND - 1) {
        dp_stats.max_pcb_list_reach++;
        DPMAIN_TRACE(DP_PKT, "client_id=0x%x dropped for reach max pcbs\n", image.client_id);
        return -2;
    }
    // 3. parse
    int ret = dpendec_compose_dns_msg_inf(pkt.buf, pkt.len, &pkt.inf);
    if (ret < 0) {
        dp_stats.query_format_error++;
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp format err to query ret=%d\n", image.client_id,
                     ret);
        error_answer(q, kRcodeFormErr);
        return -3;
    }
    if (dpcfg_is_hardened_mode_enabled() != 0) dpxy_hard_note_case(image, pkt);
    // 4. 5. a query, not an answer
    DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x name=%s hostaddr=%s\n", image.client_id, pkt.inf.name,
                 pkt.inf.hostaddr);
    if (is_query_valid(pkt.inf) < 0) {
        DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x dropped for invalid query\n", image.client_id);
        dp_metrics.drops[DP_DROP_INVALID_QUERY]++;
        return -4;
    }
    // 6. (the DNS filter's vendor options are not part of this build)
    // 7. EDNS validation
    if (dpcfg_is_edns_enabled() != 0) {
        ret = dpedns_is_valid_edns_rr(pkt.buf, pkt.len, &pkt.inf);
        if (ret == -3) {
            dp_metrics.drops[DP_DROP_BAD_EDNS]++;
            return -3;
        }
        if (ret < 0) {
            dp_stats.query_format_error++;
            DPMAIN_TRACE(DP_DETAIL, "client_id=0x%x rsp format err to query ret=%d\n",
                         image.client_id, ret);
            error_answer(q, kRcodeFormErr);
            return -3;
        }
    }
    // 8. - 10. policies that answer everything
    if (dpcfg_is_force_register_enabled() != 0 && execute_force_register(q) < 0) return kDropped;
    if (dpcfg_is_lock_net_enabled() != 0) return execute_lock_net(q);
    if (dpcfg_is_intercept_enabled() != 0 && dpcfg_is_dslite_enabled() == 0 &&
        client->kind == DPIO_PEER_IPV4) {
        return execute_intercept(q);
    }
    // 11. the client's MAC address for the servers
    if (dpcfg_is_edns_enabled() != 0) {
        static dns_pkt backup;
        dpendec_copy_pkt(&backup, &pkt);
        int had_opt = 0;
        dpedns_insert_option41(&backup, pkt.buf, &pkt.len, client, &pkt.inf, &had_opt);
        image.edns_mode = had_opt != 0 ? DPXY_EDNS_UPDATE_PAYLOAD : DPXY_EDNS_STRIP;
    }
    // 12. local tables
    if (pkt.inf.qdcount == 1 || pkt.inf.qtype == DPENDEC_TYPE_A ||
        pkt.inf.qtype == DPENDEC_TYPE_PTR || pkt.inf.qtype == DPENDEC_TYPE_AAAA) {
        if (resolve_query_from_local_cache(q) == 1) return 0;
    }
    // 13. redirect
    if (dpcfg_is_redirect_enabled() != 0) return execute_redirect(q);
    // 14. upstream
    return forward_query_to_servers(q) == kDropped ? kDropped : 0;
}

uint32_t dpxy_force_url_count() {
    return force_url_count;
}
