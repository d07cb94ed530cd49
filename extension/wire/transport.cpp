#include "wire/transport.h"

#include "wire/client.h"
#include "wire/handshake.h"
#include "json/kaq_json.h"
#include "wire/receiver.h"
#include "wire/sender.h"
#include "state/php_kaq.h"

#include <stdlib.h>

void send_packed_data_tcp(const char *text) {
	const zend_kaq_globals *g = kaq_get_globals();
	char address[KAQ_ADDRESS_SIZE];
	if (!text) {
		return;
	}
	kaq_collector_address(g->remote_exporter_ip, g->remote_exporter_hostname, address);
	kaq_send_text(address, g->tcp_data_port, text);
}

char *get_instance_data(void) {
	const zend_kaq_globals *g = kaq_get_globals();
	smart_str request = {nullptr, 0};
	char *reply;
	if (form_instanceinfo_request(&request) != 0) {
		reply = (char *)calloc(1, 1);
	} else {
		char address[KAQ_ADDRESS_SIZE];
		kaq_collector_address(g->remote_exporter_ip, g->remote_exporter_hostname, address);
		reply = kaq_exchange(address, g->tcp_status_port, ZSTR_VAL(request.s), ZSTR_LEN(request.s));
	}
	kaq_buf_free(&request);
	return reply;
}
