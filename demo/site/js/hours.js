window.bakery = { open: '07:00', close: '17:30', closed: ['Monday'] };
