#include "wire/transport.h"

#include "state/php_kaq.h"
#include "wire/client.h"
#include "wire/sender.h"

void send_packed_data_tcp(const char *text) {
	const zend_kaq_globals *g = kaq_get_globals();
	char address[KAQ_ADDRESS_SIZE];
	if (!text) {
		return;
	}
	kaq_collector_address(g->remote_exporter_ip, g->remote_exporter_hostname, address);
	kaq_send_text(address, g->tcp_data_port, text);
}
