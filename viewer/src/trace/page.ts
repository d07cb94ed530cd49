/* One request, and a whole trace across services. */
import { api } from '../api/services';
import { el } from '../ui/dom';
import { duration, timeElement } from '../ui/format';
import type { Page } from '../ui/page';
import { Panel } from '../ui/panel';

export function requestPage(): Page {
	const panel = new Panel('', { what: 'The request' });
	return {
		element: panel.element,
		title: (address) => `Request ${address.own.id ?? ''}`,
		show: (address) =>
			void panel.fill(async (signal) => {
				const { request } = await api.request(address.own.id ?? '', signal);
				return el('p', {}, request.name, ' ', duration(request.duration_ms), ' ', timeElement(request.start_ms));
			}),
		end: () => panel.end(),
	};
}

export function tracePage(): Page {
	const panel = new Panel('', { what: 'The trace' });
	return {
		element: panel.element,
		title: (address) => `Trace ${address.own.id ?? ''}`,
		show: (address) =>
			void panel.fill(async (signal) => {
				const trace = await api.trace(address.own.id ?? '', signal);
				return el('p', {}, trace.trace_id, ' ', duration(trace.duration_ms));
			}),
		end: () => panel.end(),
	};
}
